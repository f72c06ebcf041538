// SPDX-License-Identifier: MIT
#include "addressing/address_probe.h"

#include "addressing/arp_socket.h"
#include "base/diag.h"
#include "common/address.h"
#include "state/monitor_slots.h"

using ledboard::DottedFromHostOrder;

namespace
{

constexpr char kUnit[] = "src/init_network.cpp"; // one unit in the log with what the work loop calls

constexpr std::chrono::seconds kLeaseChance{10}; // a DHCP server usually answers sooner

// -1 while there is no socket.
int ProbeSocket()
{
    return g_sessions == nullptr ? -1 : (*g_sessions)[kSlotProbe].fd;
}

// Opens slot 5 unless it is open. False if it cannot be opened.
bool OpenProbeSlot(const char *ifname)
{
    if (g_sessions == nullptr)
        return false;
    MonitorSession &slot = (*g_sessions)[kSlotProbe];
    if (slot.fd != -1)
        return true;
    slot.fd = OpenArpSocket(ifname);
    slot.valid = slot.fd != -1 ? 1 : 0;
    return slot.fd != -1;
}

// The interface may have been removed and added again: the socket then is still bound to the old one.
void BindToInterface(int fd, const char *ifname, int index)
{
    if (BoundInterface(fd) == index)
        return;
    BringUp(ifname);
    BindArpSocket(fd, index);
}

void DropLinkLocal(const InterfaceState &interface)
{
    if (interface.linkLocal != 0 && DeleteLinkLocal(interface.index, interface.linkLocal))
        Diag(kUnit, __func__, __LINE__, "link-local address %s is given up.",
             DottedFromHostOrder(interface.linkLocal).c_str());
}

} // namespace

void AddressProbe::StartAtOnce(Moment now)
{
    BringUp(ifname_);
    phase_ = Phase::kRunning;
    linkWasUp_ = false;
    const auto interface = ReadInterface(ifname_);
    if (interface && interface->mac)
        StartClaim(*interface->mac, now);
}

void AddressProbe::Tick(Moment now)
{
    const auto interface = ReadInterface(ifname_);
    if (!interface)
        return;
    if (interface->hasLease) {
        DropLinkLocal(*interface);
        End();
        return;
    }
    if (waitsAfterLinkLoss_)
        return;
    switch (phase_) {
    case Phase::kOver:
        // A lease can also end without a link event, which leaves the board without an address.
        WaitForLease(now);
        break;
    case Phase::kWaiting:
        if (!interface->linkUp)
            GiveLeaseChance(now);
        else if (now >= leaseChanceEnd_)
            Start(*interface, now);
        break;
    case Phase::kRunning:
        DriveClaim(*interface, now);
        break;
    }
}

void AddressProbe::Hear(const HeardArp &packet, int fd, Moment now)
{
    const std::uint32_t address = claim_.Address();
    const LinkLocalClaim::Action action = claim_.Hear(packet, now);
    if (claim_.Address() != address)
        Diag(kUnit, __func__, __LINE__, "link-local address %s is taken, the next is %s.",
             DottedFromHostOrder(address).c_str(), DottedFromHostOrder(claim_.Address()).c_str());
    if (action == LinkLocalClaim::Action::kNothing)
        return; // nearly every packet: the interface is not read for those
    const auto interface = ReadInterface(ifname_);
    if (interface && interface->mac)
        Do(action, fd, *interface, now);
}

void AddressProbe::End()
{
    phase_ = Phase::kOver;
    claim_.Stop();
}

bool AddressProbe::WaitAfterLinkLoss(Moment now)
{
    const auto interface = ReadInterface(ifname_);
    if (interface && (!waitsAfterLinkLoss_ || !interface->linkUp))
        GiveLeaseChance(now);
    waitsAfterLinkLoss_ = interface && now < leaseChanceEnd_;
    if (interface && !waitsAfterLinkLoss_ && !interface->hasLease)
        Start(*interface, now);
    return waitsAfterLinkLoss_;
}

void AddressProbe::GiveLeaseChance(Moment now)
{
    leaseChanceEnd_ = now + kLeaseChance;
}

void AddressProbe::WaitForLease(Moment now)
{
    phase_ = Phase::kWaiting;
    GiveLeaseChance(now);
}

// A link-local address that the interface still has may be taken on the new cable: it is deleted and probed
// for like a new one.
void AddressProbe::Start(const InterfaceState &interface, Moment now)
{
    if (!OpenProbeSlot(ifname_)) {
        WaitForLease(now);
        return;
    }
    DropLinkLocal(interface);
    phase_ = Phase::kRunning;
    linkWasUp_ = false;
    claim_.Stop();
}

void AddressProbe::StartClaim(const MacAddress &own, Moment now)
{
    claim_.Start(own, now);
    Diag(kUnit, __func__, __LINE__, "link-local address %s is probed for.",
         DottedFromHostOrder(claim_.Address()).c_str());
}

void AddressProbe::DriveClaim(const InterfaceState &interface, Moment now)
{
    const int fd = ProbeSocket();
    if (fd == -1 || !interface.mac)
        return;
    BindToInterface(fd, ifname_, interface.index);
    if (!interface.linkUp) {
        PauseClaim(now);
        return;
    }
    linkWasUp_ = true;
    if (claim_.Stopped()) {
        StartClaim(*interface.mac, now);
    } else if (claim_.Holds() && interface.linkLocal != claim_.Address()) {
        // Somebody else removed it, such as the DHCP client's script.
        DropLinkLocal(interface);
        claim_.Restart(now);
    }
    Do(claim_.Tick(now), fd, interface, now);
}

// Without a link probes prove nothing. A claim that had a link starts again after a lease had its chance, one
// that never had a link starts as soon as the link is up.
void AddressProbe::PauseClaim(Moment now)
{
    if (linkWasUp_)
        WaitForLease(now);
    else
        claim_.Stop();
}

void AddressProbe::Do(LinkLocalClaim::Action action, int fd, const InterfaceState &interface, Moment now)
{
    switch (action) {
    case LinkLocalClaim::Action::kNothing:
        break;
    case LinkLocalClaim::Action::kProbe:
        if (!SendArpProbe(fd, *interface.mac, claim_.Address()))
            claim_.Restart(now); // a probe that was not sent proves nothing
        break;
    case LinkLocalClaim::Action::kClaim:
        Claim(fd, interface, now);
        break;
    case LinkLocalClaim::Action::kAnnounce:
        SendArpAnnouncement(fd, *interface.mac, claim_.Address());
        break;
    case LinkLocalClaim::Action::kGiveUp:
        DropLinkLocal(interface);
        break;
    }
}

void AddressProbe::Claim(int fd, const InterfaceState &interface, Moment now)
{
    const std::string address = DottedFromHostOrder(claim_.Address());
    if (!AddLinkLocal(interface.index, claim_.Address())) {
        DiagErrno(kUnit, __func__, __LINE__, "link-local address %s: ", address.c_str());
        claim_.Restart(now);
        return;
    }
    Diag(kUnit, __func__, __LINE__, "link-local address %s is ours.", address.c_str());
    SendArpAnnouncement(fd, *interface.mac, claim_.Address());
}
