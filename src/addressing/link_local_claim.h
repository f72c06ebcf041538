// SPDX-License-Identifier: MIT
// src/addressing/link_local_claim.h: how a link-local address is claimed, announced and defended (RFC 3927,
// sections 2.1 to 2.5 and 9), without a socket and without a clock of its own. One thread.
//
// Every call returns what the caller has to do now. `now` comes from a clock that never goes back.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

using MacAddress = std::array<std::uint8_t, 6>;

// A received ARP packet for IPv4 on Ethernet. Addresses are in host byte order.
struct HeardArp {
    MacAddress sender{};
    std::uint32_t senderAddress = 0;
    std::uint32_t targetAddress = 0;
    bool isRequest = false;
};

class LinkLocalClaim
{
public:
    using Moment = std::chrono::steady_clock::time_point;

    enum class Action {
        kNothing,
        kProbe,    // broadcast an ARP probe for Address()
        kClaim,    // set Address() on the interface and announce it
        kAnnounce, // announce Address()
        kGiveUp,   // delete the held address from the interface; Address() is the next candidate already
    };

    // Probes for the last candidate of this MAC address, or for its first one.
    void Start(const MacAddress &own, Moment now);
    void Restart(Moment now); // probes for the same candidate again; does nothing when stopped
    void Stop() { phase_ = Phase::kStopped; }

    Action Tick(Moment now); // about once a second
    Action Hear(const HeardArp &packet, Moment now);

    std::uint32_t Address() const { return address_; } // candidate or held address, host byte order
    bool Stopped() const { return phase_ == Phase::kStopped; }
    bool Holds() const { return phase_ == Phase::kHolding; }

private:
    enum class Phase { kStopped, kProbing, kHolding };

    Action DefendOrGiveUp(Moment now);
    void NextCandidate();
    std::chrono::seconds RandomSeconds(int min); // min or min + 1

    Phase phase_ = Phase::kStopped;
    MacAddress own_{};
    std::uint32_t address_ = 0;
    std::uint64_t candidate_ = 0; // index of address_ in this MAC address's sequence of candidates
    std::uint64_t random_ = 0;
    int conflicts_ = 0; // since an address was held for a minute
    int probes_ = 0;    // sent for this candidate
    int announcements_ = 0;
    bool defended_ = false; // since the address was claimed
    Moment due_{};          // the next probe, claim or announcement
    Moment heldSince_{};
    Moment lastDefence_{};
};
