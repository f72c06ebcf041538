// SPDX-License-Identifier: MIT
#include "addressing/init_network.h"

#include "addressing/arp_socket.h"
#include "addressing/interface_state.h"
#include "base/diag.h"
#include "common/address.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/monitor_slots.h"
#include "state/system_env.h"
#include "state/tick.h"

#include <string>

using ledboard::DottedFromHostOrder;

namespace
{

constexpr char kUnit[] = "src/init_network.cpp";
constexpr char kEthernet[] = "eth0";
constexpr std::chrono::seconds kLeaseChance{10};

using Clock = std::chrono::steady_clock;

enum class Probe {
    kOver,    // a lease or a fixed address is there
    kWaiting, // a lease has its chance until s_waitEnd
    kRunning, // the claim is driven
};

Probe s_probe = Probe::kOver;
Clock::time_point s_waitEnd;
bool s_linkWasUp = false; // while the probe runs
LinkLocalClaim s_claim;

bool s_delayPending = false; // a DelaySnicker has begun to wait

int ProbeSocket()
{
    return g_sessions == nullptr ? -1 : (*g_sessions)[kSlotProbe].fd;
}

void WaitForLease(Clock::time_point now)
{
    s_probe = Probe::kWaiting;
    s_waitEnd = now + kLeaseChance;
}

// Opens slot 5 unless it is open. False when it cannot be opened.
bool OpenProbeSlot()
{
    if (g_sessions == nullptr)
        return false;
    MonitorSession &slot = (*g_sessions)[kSlotProbe];
    if (slot.fd != -1)
        return true;
    slot.fd = BuildSnicker(kEthernet);
    slot.valid = slot.fd != -1 ? 1 : 0;
    return slot.fd != -1;
}

void DropLinkLocal(const InterfaceState &interface)
{
    if (interface.linkLocal != 0 && DeleteLinkLocal(interface.index, interface.linkLocal))
        Diag(kUnit, __func__, __LINE__, "link-local address %s is given up.",
             DottedFromHostOrder(interface.linkLocal).c_str());
}

// What the interface has outlives its old cable: the address is probed for like a new one.
void StartProbe(const InterfaceState &interface, Clock::time_point now)
{
    if (!OpenProbeSlot()) {
        WaitForLease(now);
        return;
    }
    DropLinkLocal(interface);
    s_probe = Probe::kRunning;
    s_linkWasUp = false;
    s_claim.Stop();
}

void StartClaim(const MacAddress &own, Clock::time_point now)
{
    s_claim.Start(own, now);
    Diag(kUnit, __func__, __LINE__, "link-local address %s is probed for.",
         DottedFromHostOrder(s_claim.Address()).c_str());
}

void Claim(int fd, const InterfaceState &interface, Clock::time_point now)
{
    if (!AddLinkLocal(interface.index, s_claim.Address())) {
        DiagErrno(kUnit, __func__, __LINE__,
                  "link-local address %s: ", DottedFromHostOrder(s_claim.Address()).c_str());
        s_claim.Restart(now);
        return;
    }
    Diag(kUnit, __func__, __LINE__, "link-local address %s is ours.",
         DottedFromHostOrder(s_claim.Address()).c_str());
    SendArpAnnouncement(fd, *interface.mac, s_claim.Address());
}

void Do(LinkLocalClaim::Action action, int fd, const InterfaceState &interface, Clock::time_point now)
{
    switch (action) {
    case LinkLocalClaim::Action::kNothing:
        break;
    case LinkLocalClaim::Action::kProbe:
        if (!SendArpProbe(fd, *interface.mac, s_claim.Address()))
            s_claim.Restart(now); // a probe that nobody heard proves nothing
        break;
    case LinkLocalClaim::Action::kClaim:
        Claim(fd, interface, now);
        break;
    case LinkLocalClaim::Action::kAnnounce:
        SendArpAnnouncement(fd, *interface.mac, s_claim.Address());
        break;
    case LinkLocalClaim::Action::kGiveUp:
        DropLinkLocal(interface);
        break;
    }
}

void BindToInterface(int fd, const InterfaceState &interface)
{
    if (BoundInterface(fd) == interface.index)
        return;
    BringUp(kEthernet);
    BindArpSocket(fd, interface.index);
}

// The claim without a link: what was begun is stopped, what was held is looked at again when a lease had its
// chance.
void RestClaim(Clock::time_point now)
{
    if (s_linkWasUp)
        WaitForLease(now);
    else
        s_claim.Stop();
}

void DriveClaim(const InterfaceState &interface, Clock::time_point now)
{
    const int fd = ProbeSocket();
    if (fd == -1 || !interface.mac)
        return;
    BindToInterface(fd, interface);
    if (!interface.linkUp) {
        RestClaim(now);
        return;
    }
    s_linkWasUp = true;
    if (s_claim.Stopped()) {
        StartClaim(*interface.mac, now);
    } else if (s_claim.Holds() && interface.linkLocal != s_claim.Address()) {
        DropLinkLocal(interface);
        s_claim.Restart(now);
    }
    Do(s_claim.Tick(now), fd, interface, now);
}

void GoOnWaiting(const InterfaceState &interface, Clock::time_point now)
{
    if (!interface.linkUp)
        WaitForLease(now);
    else if (now >= s_waitEnd)
        StartProbe(interface, now);
}

void DriveProbe(const InterfaceState &interface, Clock::time_point now)
{
    if (interface.hasLease) {
        DropLinkLocal(interface);
        s_probe = Probe::kOver;
        s_claim.Stop();
        return;
    }
    if (s_delayPending)
        return;
    // A lease that ends without a word of the link leaves the board without an address as well.
    if (s_probe == Probe::kOver)
        WaitForLease(now);
    else if (s_probe == Probe::kRunning)
        DriveClaim(interface, now);
    else
        GoOnWaiting(interface, now);
}

void ReportAddress()
{
    const std::int32_t address = GetLocalIPAddress(kEthernet);
    if (address == -1)
        return;
    g_device.setIp(address);
    g_device.setMask(static_cast<std::int32_t>(GetLocalMask(kEthernet)));
    g_device.setGateway(static_cast<std::int32_t>(GetGateway(kEthernet)));
}

} // namespace

int BuildSnicker(const char *ifname)
{
    return OpenArpSocket(ifname);
}

int DisposeSnickerPacket(int fd)
{
    const std::optional<HeardArp> packet = ReceiveArp(fd);
    if (s_probe == Probe::kOver || GetFixedStatus() != 0)
        return 0;
    if (!packet)
        return 1;
    const std::uint32_t address = s_claim.Address();
    const auto now = Clock::now();
    const LinkLocalClaim::Action action = s_claim.Hear(*packet, now);
    if (s_claim.Address() != address)
        Diag(kUnit, __func__, __LINE__, "link-local address %s is taken, the next is %s.",
             DottedFromHostOrder(address).c_str(), DottedFromHostOrder(s_claim.Address()).c_str());
    if (action == LinkLocalClaim::Action::kNothing)
        return 1;
    const auto interface = ReadInterface(kEthernet);
    if (interface && interface->mac)
        Do(action, fd, *interface, now);
    return 1;
}

void SetLOAddress()
{
    BringUp(kEthernet);
    s_probe = Probe::kRunning;
    s_linkWasUp = false;
    const auto interface = ReadInterface(kEthernet);
    if (interface && interface->mac)
        StartClaim(*interface->mac, Clock::now());
}

void SetUDPPacketAddress()
{
    if (GetFixedStatus() != 0) {
        s_probe = Probe::kOver;
        s_claim.Stop();
        return;
    }
    const auto interface = ReadInterface(kEthernet);
    if (interface)
        DriveProbe(*interface, Clock::now());
    ReportAddress();
}

void DelaySnicker()
{
    const auto now = Clock::now();
    if (SlotsInTick(DelaySnicker) > 1) {
        // The link went down once more: the last entry stays and waits anew.
        s_waitEnd = now + kLeaseChance;
        RemoveFromTick(DelaySnicker);
        return;
    }
    const auto interface = ReadInterface(kEthernet);
    if (GetFixedStatus() == 0 && interface) {
        if (!s_delayPending || !interface->linkUp)
            s_waitEnd = now + kLeaseChance;
        s_delayPending = true;
        if (now < s_waitEnd)
            return;
        if (!interface->hasLease)
            StartProbe(*interface, now);
    }
    s_delayPending = false;
    RemoveFromTick(DelaySnicker);
}
