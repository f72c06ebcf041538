// SPDX-License-Identifier: MIT
// src/addressing/link_local_claim.h: how a link-local address is claimed, announced and defended (RFC
// 3927, 2.1 to 2.5 and section 9), without a socket and without a clock of its own. One thread.
//
// Every call says what the caller is to do now. `now` is of a clock that never goes back.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

using MacAddress = std::array<std::uint8_t, 6>;

// An ARP packet that concerns IPv4 on Ethernet. Addresses are in host byte order.
struct ArpNews {
    MacAddress sender{};
    std::uint32_t senderAddress = 0;
    std::uint32_t targetAddress = 0;
    bool isRequest = false;
};

class LinkLocalClaim
{
public:
    using Moment = std::chrono::steady_clock::time_point;

    enum class Deed {
        kNothing,
        kProbe,    // ask whether somebody has Address()
        kClaim,    // give Address() to the interface and announce it
        kAnnounce, // announce Address()
        kGiveUp,   // take the address from the interface; Address() is the next candidate already
    };

    // Probes for the candidate that this MAC address had last, or for its first one.
    void Start(const MacAddress &own, Moment now);
    void Restart(Moment now); // probes for the same candidate again; nothing when stopped
    void Stop() { phase_ = Phase::kStopped; }

    Deed Tick(Moment now); // about once a second
    Deed Hear(const ArpNews &news, Moment now);

    std::uint32_t Address() const { return address_; } // candidate or address held, host byte order
    bool Stopped() const { return phase_ == Phase::kStopped; }
    bool Holds() const { return phase_ == Phase::kHolding; }

private:
    enum class Phase { kStopped, kProbing, kHolding };

    Deed DefendOrGiveUp(Moment now);
    void NextCandidate();
    std::chrono::seconds RandomSeconds(int least); // least or one more

    Phase phase_ = Phase::kStopped;
    MacAddress own_{};
    std::uint32_t address_ = 0;
    std::uint64_t candidate_ = 0; // counts the candidates of this MAC address
    std::uint64_t random_ = 0;
    int conflicts_ = 0; // since an address was last held for long
    int probes_ = 0;
    int announcements_ = 0;
    bool defended_ = false;
    Moment due_{};
    Moment heldSince_{};
    Moment lastDefence_{};
};
