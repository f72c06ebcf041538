// SPDX-License-Identifier: MIT
// src/modem/dial_plan.h: decides when pppd is started. Pure: what is seen of the system and the time are
// arguments. An object belongs to one thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

struct DialFacts {
    bool ready = false;     // a network has registered the modem, and pppd has its settings
    bool linkThere = false; // the interface of the data link exists
    bool pppdRuns = false;  // any pppd, whoever started it
    // How the command that dials ended, as a wait status; in one call of Next only.
    std::optional<int> ended = std::nullopt;
};

enum class DialAction {
    kNone,
    kDial,
    kGiveUp, // end the pppd that was started
};

// Dials at once the first time, 10 s after the link went down or a signal ended pppd, and after a failure
// with a pause that doubles with each further one, from 10 s to 5 min. A link that comes up resets the pause.
class DialPlan
{
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds kMinPause{10};
    static constexpr std::chrono::seconds kMaxPause{300};
    static constexpr std::chrono::seconds kDialLimit{180}; // from the start of pppd to the link

    // Call it about once a second; `now` never goes back.
    DialAction Next(const DialFacts &facts, Time now);
    bool Dialling() const { return dialling_; } // pppd was started, and there is neither link nor failure yet
    std::string TakeFailure(); // why the last attempt failed, returned once; empty without a new failure

private:
    DialAction NextWhileDialling(const DialFacts &facts, Time now);
    void Fail(const std::string &why, Time now);

    bool dialling_ = false;
    bool commandRuns_ = false;
    Time began_;
    Time earliest_;
    std::chrono::seconds pause_ = kMinPause;
    std::string failure_;
};
