// SPDX-License-Identifier: MIT
#include "loop/network_setup.h"

#include "addressing/init_network.h"
#include "addressing/netlink.h"
#include "base/diag.h"
#include "base/listeners.h"
#include "records/session_records.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/server_status.h"
#include "state/system_env.h"
#include "state/tick.h"

#include <unistd.h>

#include <cstdio>
#include <new>
#include <string>

namespace
{

constexpr char kUnit[] = "src/network.c";
constexpr char kEthernet[] = "eth0";
constexpr char kAnyAddress[] = "0.0.0.0";

std::string MacText(const unsigned char *mac)
{
    std::string text;
    for (int index = 0; index < 6; ++index) {
        // QUIRK mac-blanks: a single digit is padded with a blank; a zero would be expected.
        char byte[8];
        std::snprintf(byte, sizeof byte, "%2x:", static_cast<unsigned>(mac[index]));
        text += byte;
    }
    text.resize(17);
    return text;
}

int InitTcpSocketOnAny(int port)
{
    return InitTcpSocket(kAnyAddress, port);
}

bool Opened(MonitorSession *slot, int fd, int port = 0)
{
    slot->fd = fd;
    slot->valid = fd >= 0 ? 1 : 0;
    slot->localPort = port;
    return fd >= 0;
}

bool ProbeIsWanted()
{
    return GetFixedStatus() == 0 && g_device.Copy().ipaddr == 0;
}

bool CustomPortIsWanted()
{
    return GetCustomPort() != 0 && GetFixedStatus() == 1;
}

bool OpenSlots(MonitorSlots &slots)
{
    if (!Opened(&slots[kSlotDiscovery], InitUdpSocket(kAnyAddress, wire::kDiscoveryPort),
                wire::kDiscoveryPort) ||
        !Opened(&slots[kSlotSessions], InitTcpSocketOnAny(wire::kSessionPort), wire::kSessionPort) ||
        !Opened(&slots[kSlotLink], BuildNetlinkSocket()) || !Opened(&slots[kSlotTick], InitTick()))
        return false;
    if (ProbeIsWanted() && !Opened(&slots[kSlotProbe], BuildSnicker(kEthernet)))
        return false;
    if (!CustomPortIsWanted())
        return true;
    const int port = GetCustomPort();
    return Opened(&slots[kSlotCustomSessions], InitTcpSocketOnAny(port), port) &&
           Opened(&slots[kSlotCustomDiscovery], InitUdpSocket(kAnyAddress, port), port);
}

} // namespace

bool GetSystemEnvInfo()
{
    const int fixed = CheckIsFixedIPAddress();
    Diag(kUnit, __func__, __LINE__, fixed == 1 ? "is fixed ip address." : "is dynamic ip address.");
    SetFixedStatus(fixed);

    const std::int32_t room = CheckIsUDiskCard();
    g_serverStatus.uDiskSize = room;
    g_serverStatus.uDiskConnectFlag = room != 0 ? 1 : 0;
    g_device.setUDiskSize(room);

    const std::int32_t address = GetLocalIPAddress(kEthernet);
    if (address == 0)
        SetLOAddress();
    // QUIRK two-byte-orders: the record holds the address in network byte order, mask and gateway in host
    // byte order; the same order for all three would be expected.
    g_device.setIp(address);
    g_device.setMask(static_cast<std::int32_t>(GetLocalMask(kEthernet)));
    g_device.setGateway(static_cast<std::int32_t>(GetGateway(kEthernet)));

    unsigned char mac[6] = {};
    if (GetLocalMac(kEthernet, mac) == 0) {
        Diag(kUnit, __func__, __LINE__, "get local mac error and exit work loop!!!");
        return false;
    }
    g_device.setMac(MacText(mac).c_str());
    return true;
}

std::unique_ptr<MonitorSlots> InitListener()
{
    std::unique_ptr<MonitorSlots> slots(new (std::nothrow) MonitorSlots);
    if (slots == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "malloc fail: ");
        return nullptr;
    }
    for (std::size_t index = 0; index < slots->size(); ++index)
        (*slots)[index].type = static_cast<std::int32_t>(index);
    if (OpenSlots(*slots))
        return slots;
    CloseSlots(slots.get());
    return nullptr;
}

void CloseSlots(MonitorSlots *slots)
{
    for (MonitorSession &slot : *slots) {
        if (slot.fd >= 0)
            close(slot.fd);
        slot.fd = -1;
        slot.valid = 0;
    }
}
