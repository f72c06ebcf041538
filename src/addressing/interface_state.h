// SPDX-License-Identifier: MIT
// src/addressing/interface_state.h: what an interface has, and the link-local address that it is given or
// loses. Main thread. Addresses are in host byte order.
#pragma once

#include "addressing/link_local_claim.h"

#include <optional>

struct InterfaceState {
    int index = 0; // 0: there is no such interface
    bool linkUp = false;
    bool hasLease = false;       // some address that is neither link-local nor of the loopback
    std::uint32_t linkLocal = 0; // the first link-local address, 0 none
    std::optional<MacAddress> mac;
};

// Nothing when the system could not be asked.
std::optional<InterfaceState> ReadInterface(const char *ifname);

void BringUp(const char *ifname); // does nothing when there is no such interface

// Add and delete exactly this address with the mask 255.255.0.0; every other address stays as it is. False
// with errno when the kernel refused.
bool AddLinkLocal(int interface, std::uint32_t address);
bool DeleteLinkLocal(int interface, std::uint32_t address);
