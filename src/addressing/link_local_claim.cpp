// SPDX-License-Identifier: MIT
#include "addressing/link_local_claim.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

constexpr int kProbeNumber = 3;
constexpr seconds kProbeLeast{1}; // pause between two probes, this or one second more
constexpr seconds kAnnounceWait{2};
constexpr int kAnnounceNumber = 2;
constexpr seconds kAnnounceInterval{2};
constexpr int kMaxConflicts = 10;
constexpr seconds kRateLimitInterval{60};
constexpr seconds kDefendInterval{10};

// A tick comes a little before or after its second; one that is this early still counts.
constexpr milliseconds kTickJitter{250};

// 169.254.1.0 to 169.254.254.255.
constexpr std::uint32_t kFirstAddress = 0xA9FE0100;
constexpr std::uint32_t kAddressCount = 254 * 256;

// SplitMix64: uniform, and good for seeds that differ in one bit, as MAC addresses of one maker do.
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

// Every board has a row of its own, which begins the same after each start.
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
        // Boards that are switched on together must not wait in step.
        random_ = Mix(Number(own)) ^ static_cast<std::uint64_t>(now.time_since_epoch().count());
    }
    phase_ = Phase::kProbing;
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

LinkLocalClaim::Deed LinkLocalClaim::Tick(Moment now)
{
    if (Stopped() || now + kTickJitter < due_)
        return Deed::kNothing;
    if (Holds()) {
        if (announcements_ == kAnnounceNumber)
            return Deed::kNothing;
        ++announcements_;
        return Deed::kAnnounce;
    }
    if (probes_ < kProbeNumber) {
        ++probes_;
        due_ = now + (probes_ == kProbeNumber ? kAnnounceWait : RandomSeconds(kProbeLeast.count()));
        return Deed::kProbe;
    }
    phase_ = Phase::kHolding;
    heldSince_ = now;
    defended_ = false;
    announcements_ = 1;
    due_ = now + kAnnounceInterval;
    return Deed::kClaim;
}

LinkLocalClaim::Deed LinkLocalClaim::Hear(const ArpNews &news, Moment now)
{
    if (Stopped() || news.sender == own_)
        return Deed::kNothing;
    const bool used = news.senderAddress == address_;
    if (Holds())
        return used ? DefendOrGiveUp(now) : Deed::kNothing;
    const bool probedFor = news.isRequest && news.senderAddress == 0 && news.targetAddress == address_;
    if (!used && !probedFor)
        return Deed::kNothing;
    NextCandidate();
    // A candidate that is taken before its first probe is changed within the wait, which a flood of
    // packets must not prolong.
    if (probes_ > 0)
        Restart(now);
    return Deed::kNothing;
}

LinkLocalClaim::Deed LinkLocalClaim::DefendOrGiveUp(Moment now)
{
    if (!defended_ || now - lastDefence_ >= kDefendInterval) {
        defended_ = true;
        lastDefence_ = now;
        return Deed::kAnnounce;
    }
    if (now - heldSince_ >= kRateLimitInterval)
        conflicts_ = 0;
    NextCandidate();
    Restart(now);
    return Deed::kGiveUp;
}

void LinkLocalClaim::NextCandidate()
{
    if (conflicts_ < kMaxConflicts)
        ++conflicts_;
    ++candidate_;
    address_ = CandidateAddress(own_, candidate_);
}

seconds LinkLocalClaim::RandomSeconds(int least)
{
    random_ = Mix(random_);
    return seconds(least + static_cast<int>(random_ & 1));
}
