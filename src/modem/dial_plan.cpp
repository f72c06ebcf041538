// SPDX-License-Identifier: MIT
#include "modem/dial_plan.h"

#include <sys/wait.h>

#include <algorithm>
#include <utility>

namespace
{

// A signal ended the command. There are three ways to see it: the shell was killed; the shell reports that
// pppd was killed; or pppd caught the signal and reports it by its own exit status (pppd(8), EXIT STATUS).
bool EndedBySignal(int status)
{
    constexpr int kShellSignal = 128; // plus the number of the signal
    constexpr int kPppdSignal = 5;
    return WIFSIGNALED(status) || WEXITSTATUS(status) > kShellSignal || WEXITSTATUS(status) == kPppdSignal;
}

} // namespace

void DialPlan::Fail(const std::string &why, Time now)
{
    failure_ = why;
    dialling_ = false;
    earliest_ = now + pause_;
    pause_ = std::min(2 * pause_, kMaxPause);
}

bool DialPlan::CableAllows(const DialFacts &facts, Time now)
{
    if (facts.always)
        return true;
    if (facts.carrier)
        noCarrierSince_.reset();
    else if (!noCarrierSince_)
        noCarrierSince_ = now;
    return noCarrierSince_ && now - *noCarrierSince_ >= kNoCarrierTime;
}

// Again after a pause while pppd lives on: it may have missed the signal on its way to the background.
DialAction DialPlan::HangUp(Time now)
{
    dialling_ = false;
    if (hungUp_ && now < earliest_)
        return DialAction::kNone;
    hungUp_ = true;
    pause_ = kMinPause;
    earliest_ = now + kMinPause;
    return DialAction::kHangUp;
}

DialAction DialPlan::NextWhileDialling(const DialFacts &facts, Time now)
{
    if (facts.ended) {
        if (EndedBySignal(*facts.ended)) {
            // Usually the link monitor ended it: the network did not refuse, so the pause does not grow.
            dialling_ = false;
            earliest_ = now + kMinPause;
            return DialAction::kNone;
        }
        if (*facts.ended != 0) {
            Fail("pppd ended with status " + std::to_string(WEXITSTATUS(*facts.ended)), now);
            return DialAction::kNone;
        }
        // Status 0: pppd goes on in the background, as its settings may ask for.
    }
    if (!commandRuns_ && !facts.pppdRuns) {
        Fail("pppd ended without a link", now);
        return DialAction::kNone;
    }
    if (now - began_ < kDialLimit)
        return DialAction::kNone;
    Fail("pppd made no link in time", now);
    return DialAction::kGiveUp;
}

DialAction DialPlan::Next(const DialFacts &facts, Time now)
{
    const bool cableAllows = CableAllows(facts, now);
    commandRuns_ = commandRuns_ && !facts.ended;
    started_ = started_ && (commandRuns_ || facts.linkThere || facts.pppdRuns);
    if (started_ && facts.carrier && !facts.always)
        return HangUp(now);
    if (facts.linkThere) {
        dialling_ = false;
        pause_ = kMinPause;
        earliest_ = now + kMinPause;
        return DialAction::kNone;
    }
    if (dialling_)
        return NextWhileDialling(facts, now);
    // Another program's pppd has the modem's device: a second one would disturb it.
    if (!cableAllows || !facts.ready || facts.pppdRuns || now < earliest_)
        return DialAction::kNone;
    started_ = true;
    hungUp_ = false;
    dialling_ = true;
    commandRuns_ = true;
    began_ = now;
    return DialAction::kDial;
}

std::string DialPlan::TakeFailure()
{
    return std::exchange(failure_, {});
}
