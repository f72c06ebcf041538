// SPDX-License-Identifier: MIT
// src/addressing/address_probe.h: decides when an interface in dynamic addressing is given a link-local
// address and when it loses it: drives a LinkLocalClaim with ticks, ARP packets and the state of the
// interface. Main thread.
//
// The probe's socket is slot 5 of the work loop. The probe opens it when it needs it; the work loop closes it
// when the probe is over.
#pragma once

#include "addressing/interface_state.h"
#include "addressing/link_local_claim.h"

class AddressProbe
{
public:
    using Moment = LinkLocalClaim::Moment;

    explicit AddressProbe(const char *ifname) : ifname_(ifname) {} // the text must outlive the probe

    // Brings the interface up and probes without a wait for a lease.
    void StartAtOnce(Moment now);

    // About once a second: starts, drives or ends the probe. After a link loss it leaves the start to
    // WaitAfterLinkLoss.
    void Tick(Moment now);

    void Hear(const HeardArp &packet, int fd, Moment now); // fd: the probe's socket

    void End(); // the addressing is fixed: addresses stay as they are
    bool IsOver() const { return phase_ == Phase::kOver; } // a lease or a fixed address is there

    // Called once a tick after a link loss. True: the wait goes on. False: it is over; the probe has started
    // if the link was up long enough for a lease and there is none, and has not if the interface could not be
    // read.
    bool WaitAfterLinkLoss(Moment now);
    void CancelWait() { waitsAfterLinkLoss_ = false; }
    void GiveLeaseChance(Moment now); // a wait that runs starts again: the link was lost once more

private:
    enum class Phase {
        kOver,    // a lease or a fixed address is there
        kWaiting, // a lease has its chance until leaseChanceEnd_
        kRunning, // claim_ is driven
    };

    void WaitForLease(Moment now);
    void Start(const InterfaceState &interface, Moment now);
    void StartClaim(const MacAddress &own, Moment now);
    void DriveClaim(const InterfaceState &interface, Moment now);
    void PauseClaim(Moment now);
    void Do(LinkLocalClaim::Action action, int fd, const InterfaceState &interface, Moment now);
    void Claim(int fd, const InterfaceState &interface, Moment now);

    const char *ifname_;
    Phase phase_ = Phase::kOver;
    LinkLocalClaim claim_;
    Moment leaseChanceEnd_{};
    bool linkWasUp_ = false;          // since phase_ is kRunning
    bool waitsAfterLinkLoss_ = false; // Tick then does nothing but look for a lease
};
