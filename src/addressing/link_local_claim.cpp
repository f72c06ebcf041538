// SPDX-License-Identifier: MIT
#include "addressing/link_local_claim.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

// The constants of RFC 3927, section 9.
constexpr int kProbeNumber = 3;
constexpr int kMinProbePause = 1; // seconds between two probes; PROBE_MAX is one second more
constexpr seconds kAnnounceWait{2};
constexpr int kAnnounceNumber = 2;
constexpr seconds kAnnounceInterval{2};
constexpr int kMaxConflicts = 10;
constexpr seconds kRateLimitInterval{60};
constexpr seconds kDefendInterval{10};

// A tick may come a little early. Without this tolerance the action would then be a whole tick late.
constexpr milliseconds kTickJitter{250};

// 169.254.1.0 to 169.254.254.255.
constexpr std::uint32_t kFirstAddress = 0xA9FE0100;
constexpr std::uint32_t kAddressCount = 254 * 256;

// SplitMix64: uniform even for seeds that differ in one bit, as the MAC addresses of one maker do.
std::uint64_t Mix(std::uint64_t value)
{
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

std::uint64_t Number(const MacAddress &mac)
{
    std::uint64_t number = 0;
    for (const std::uint8_t byte : mac)
        number = number << 8 | byte;
    return number;
}

// Every board has its own sequence of candidates, the same after each start, so that it usually keeps its
// address (RFC 3927, 2.1).
std::uint32_t CandidateAddress(const MacAddress &mac, std::uint64_t index)
{
    return kFirstAddress + static_cast<std::uint32_t>(Mix(Mix(Number(mac)) + index) % kAddressCount);
}

} // namespace

void LinkLocalClaim::Start(const MacAddress &own, Moment now)
{
    if (own != own_ || address_ == 0) {
        own_ = own;
        candidate_ = 0;
        address_ = CandidateAddress(own, candidate_);
        // Boards that are switched on together should not probe at the same moments.
        random_ = Mix(Number(own)) ^ static_cast<std::uint64_t>(now.time_since_epoch().count());
    }
    phase_ = Phase::kProbing; // Restart does nothing when stopped
    Restart(now);
}

void LinkLocalClaim::Restart(Moment now)
{
    if (Stopped())
        return;
    phase_ = Phase::kProbing;
    probes_ = 0;
    due_ = now + RandomSeconds(0) + (conflicts_ >= kMaxConflicts ? kRateLimitInterval : seconds(0));
}

LinkLocalClaim::Action LinkLocalClaim::Tick(Moment now)
{
    if (Stopped() || now + kTickJitter < due_)
        return Action::kNothing;
    if (Holds()) {
        if (announcements_ == kAnnounceNumber)
            return Action::kNothing;
        ++announcements_;
        return Action::kAnnounce;
    }
    if (probes_ < kProbeNumber) {
        ++probes_;
        due_ = now + (probes_ == kProbeNumber ? kAnnounceWait : RandomSeconds(kMinProbePause));
        return Action::kProbe;
    }
    phase_ = Phase::kHolding;
    heldSince_ = now;
    defended_ = false;
    announcements_ = 1;
    due_ = now + kAnnounceInterval;
    return Action::kClaim;
}

LinkLocalClaim::Action LinkLocalClaim::Hear(const HeardArp &packet, Moment now)
{
    if (Stopped() || packet.sender == own_) // a switch or a bridge may send our own packets back
        return Action::kNothing;
    const bool used = packet.senderAddress == address_;
    if (Holds())
        return used ? DefendOrGiveUp(now) : Action::kNothing;
    const bool probedFor = packet.isRequest && packet.senderAddress == 0 && packet.targetAddress == address_;
    if (!used && !probedFor)
        return Action::kNothing;
    NextCandidate();
    // Before the first probe only the candidate changes: a flood of packets must not prolong the wait.
    if (probes_ > 0)
        Restart(now);
    return Action::kNothing;
}

LinkLocalClaim::Action LinkLocalClaim::DefendOrGiveUp(Moment now)
{
    if (!defended_ || now - lastDefence_ >= kDefendInterval) {
        defended_ = true;
        lastDefence_ = now;
        return Action::kAnnounce;
    }
    if (now - heldSince_ >= kRateLimitInterval) // earlier conflicts no longer count as a series
        conflicts_ = 0;
    NextCandidate();
    Restart(now);
    return Action::kGiveUp;
}

void LinkLocalClaim::NextCandidate()
{
    if (conflicts_ < kMaxConflicts)
        ++conflicts_;
    ++candidate_;
    address_ = CandidateAddress(own_, candidate_);
}

seconds LinkLocalClaim::RandomSeconds(int min)
{
    random_ = Mix(random_);
    return seconds(min + static_cast<int>(random_ & 1));
}
