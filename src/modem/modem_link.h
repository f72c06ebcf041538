// SPDX-License-Identifier: MIT
// src/modem/modem_link.h: the modem's data link, the interface "ppp0": starts and ends pppd when the dial
// plan says so, and logs when the link comes and goes. The default route is the link monitor's
// (addressing/netlink.h).
#pragma once

#include "base/shell.h"
#include "modem/dial_plan.h"

#include <array>
#include <cstdint>
#include <string>

// The address of ppp0, first byte first; zeros if the interface or its address is missing. Any thread.
std::array<std::uint8_t, 4> PppAddress();

// Keeps the link up. Modem thread.
class ModemLink
{
public:
    // Looks at the link once and does what is due; call it about once a second. `registered`: the SIM is
    // ready and the modem is registered with a network. Returns why an attempt has just failed (logged),
    // otherwise an empty text.
    std::string Step(bool registered);

private:
    DialFacts Look(bool registered);
    void EndPppd();

    DialPlan plan_;
    ShellChild command_;
    bool linkThere_ = false;
};
