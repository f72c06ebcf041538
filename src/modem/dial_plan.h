// SPDX-License-Identifier: MIT
// src/modem/dial_plan.h: decides when pppd is started. Pure: what is seen of the system and the time are
// arguments. An object belongs to one thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>

struct DialFacts {
    bool always = false;    // the modem is dialled with a cable too
    bool carrier = false;   // of eth0
    bool ready = false;     // a network has registered the modem, and pppd has its settings
    bool linkThere = false; // the interface of the data link exists
    bool pppdRuns = false;  // any pppd, whoever started it
    // How the command that dials ended, as a wait status; in one call of Next only.
    std::optional<int> ended = std::nullopt;
};

enum class DialAction {
    kNone,
    kDial,
    kGiveUp, // end the pppd that was started: it made no link
    kHangUp, // end the pppd that was started: the cable is back
};

// Dials only when eth0 has had no carrier for 10 s, and hangs up when the carrier returns; neither applies to
// `always`. Dials at once the first time, 10 s after the link went down or a signal ended pppd, and after a
// failure with a pause that doubles with each further one, from 10 s to 5 min. A link that comes up resets
// the pause.
class DialPlan
{
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds kNoCarrierTime{10};
    static constexpr std::chrono::seconds kMinPause{10};
    static constexpr std::chrono::seconds kMaxPause{300};
    static constexpr std::chrono::seconds kDialLimit{180}; // from the start of pppd to the link

    // Call it about once a second; `now` never goes back.
    DialAction Next(const DialFacts &facts, Time now);
    bool Started() const { return started_; } // pppd was started, and its end has not been seen yet
    std::string TakeFailure(); // why the last attempt failed, returned once; empty without a new failure

private:
    bool CableAllows(const DialFacts &facts, Time now);
    DialAction HangUp(Time now);
    DialAction NextWhileDialling(const DialFacts &facts, Time now);
    void Fail(const std::string &why, Time now);

    bool started_ = false;
    bool dialling_ = false; // started, and there is neither link nor failure yet
    bool hungUp_ = false;   // since the last start
    bool commandRuns_ = false;
    std::optional<Time> noCarrierSince_;
    Time began_;
    Time earliest_;
    std::chrono::seconds pause_ = kMinPause;
    std::string failure_;
};
