// SPDX-License-Identifier: MIT
// src/addressing/interface_state.h: reads the link and the addresses of an interface, and adds and deletes
// its link-local address. Main thread. Addresses are in host byte order.
#pragma once

#include "addressing/link_local_claim.h"

#include <optional>

struct InterfaceState {
    int index = 0; // 0: no such interface
    bool linkUp = false;
    bool hasLease = false;       // has an address other than link-local and 127.0.0.1
    std::uint32_t linkLocal = 0; // the first link-local address, 0 none
    std::optional<MacAddress> mac;
};

// Nothing if the query failed.
std::optional<InterfaceState> ReadInterface(const char *ifname);

void BringUp(const char *ifname); // does nothing if there is no such interface

// Add and delete this address with the mask 255.255.0.0; other addresses stay as they are. False with errno
// if the kernel refused.
bool AddLinkLocal(int interface, std::uint32_t address);
bool DeleteLinkLocal(int interface, std::uint32_t address);
