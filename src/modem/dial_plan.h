// SPDX-License-Identifier: MIT
// src/modem/dial_plan.h: the modem's data link: when pppd is started, and whether ppp0 is there. The
// default route belongs to the link monitor (netlink.h).
#pragma once

#include "base/shell.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// ppp0's address, first byte first; zeros without one. Any thread.
std::array<std::uint8_t, 4> PppAddress();

struct DialFacts {
    bool ready = false;                      // SIM, registration and "/etc/ppp/peers/3g" are there
    bool linkThere = false;                  // ppp0
    bool pppdRuns = false;                   // anybody's
    std::optional<int> ended = std::nullopt; // wait status of the command, once
};

enum class DialAction { kNone, kDial, kGiveUp };

// Decides when to dial: at once, 10 s after a link went or a pppd was ended by a signal, and with a pause
// that doubles up to 5 min after each failure. Pure.
class DialPlan
{
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds kShortestPause{10};
    static constexpr std::chrono::seconds kLongestPause{300};
    static constexpr std::chrono::seconds kDialLimit{180};

    DialAction Next(const DialFacts &facts, Time now);
    bool Dialling() const { return dialling_; }
    std::string TakeFailure(); // why the last attempt failed, once; empty: it did not

private:
    DialAction NextWhileDialling(const DialFacts &facts, Time now);
    void Fail(const std::string &why, Time now);

    bool dialling_ = false;
    bool commandRuns_ = false;
    Time began_;
    Time earliest_;
    std::chrono::seconds pause_ = kShortestPause;
    std::string failure_;
};

// Keeps the link up. Modem thread.
class ModemLink
{
public:
    // Once a second or so; `registered`: the SIM is ready and a network has taken it. The failure of an
    // attempt, empty mostly.
    std::string Step(bool registered);

private:
    DialFacts Look(bool registered);

    DialPlan plan_;
    ShellChild command_;
    bool linkThere_ = false;
};
