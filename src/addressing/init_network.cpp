// SPDX-License-Identifier: MIT
#include "addressing/init_network.h"

#include "addressing/address_probe.h"
#include "addressing/arp_socket.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/system_env.h"
#include "state/tick.h"

namespace
{

constexpr char kEthernet[] = "eth0";

using Clock = std::chrono::steady_clock;

AddressProbe s_probe(kEthernet);

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
    if (s_probe.IsOver() || GetFixedStatus() != 0)
        return 0;
    if (packet)
        s_probe.Hear(*packet, fd, Clock::now());
    return 1;
}

void SetLOAddress()
{
    if (GetFixedStatus() != 0) {
        BringUp(kEthernet);
        return;
    }
    s_probe.StartAtOnce(Clock::now());
}

void SetUDPPacketAddress()
{
    if (GetFixedStatus() != 0) {
        s_probe.End();
        return;
    }
    s_probe.Tick(Clock::now());
    ReportAddress();
}

void DelaySnicker()
{
    const auto now = Clock::now();
    if (SlotsInTick(DelaySnicker) > 1) {
        // Every link loss inserts one entry. One is enough; it gives a lease its whole chance again.
        s_probe.GiveLeaseChance(now);
        RemoveFromTick(DelaySnicker);
        return;
    }
    if (GetFixedStatus() == 0 && s_probe.WaitAfterLinkLoss(now))
        return;
    s_probe.CancelWait();
    RemoveFromTick(DelaySnicker);
}
