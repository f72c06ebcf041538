// SPDX-License-Identifier: MIT
#include "addressing/ip_config.h"

#include "addressing/interfaces_file.h"
#include "base/command_worker.h"
#include "base/files.h"
#include "base/listeners.h"
#include "base/paths.h"
#include "base/shell.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/monitor_slots.h"
#include "state/server_config.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>

static wire::UpdateLocalIP s_localIP{}; // the last request applied; zeros after its acknowledgement

namespace
{

constexpr std::int32_t kDhcp = 1;
constexpr char kAnyAddress[] = "0.0.0.0";

// Never destroyed: its thread may run while the process ends.
CommandWorker &DhcpWorker()
{
    static auto *const s_worker = new CommandWorker;
    return *s_worker;
}

std::string Dotted(std::uint32_t address)
{
    const in_addr network{address};
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &network, text, sizeof text);
    return text;
}

std::uint32_t Bits(wire::I32 value)
{
    return static_cast<std::uint32_t>(std::int32_t{value});
}

std::int32_t HostOrder(wire::I32 address)
{
    return static_cast<std::int32_t>(ntohl(Bits(address)));
}

FixedAddress FixedAddressOf(const wire::UpdateLocalIP &request)
{
    return {.address = Dotted(Bits(request.ip)),
            .netmask = Dotted(Bits(request.mask)),
            .network = Dotted(Bits(request.ip) & Bits(request.mask)),
            .gateway = Dotted(Bits(request.gateway))};
}

void ApplyAtOnce(const wire::UpdateLocalIP &request)
{
    const FixedAddress fixed = FixedAddressOf(request);
    RunShell("killall -9 udhcpc");
    RunShell("ifconfig eth0 " + fixed.address + " netmask " + fixed.netmask);
    RunShell("route add default gw " + fixed.gateway);
    // QUIRK fixed-host-order: the record's address is now in host byte order; the network byte order that it
    // has after start would be expected.
    g_device.setIp(HostOrder(request.ip));
    g_device.setMask(HostOrder(request.mask));
    g_device.setGateway(HostOrder(request.gateway));
}

// Copies the interfaces file to `copyName` through the rewriter; at every line that configures eth0
// `atEth0` is called. No copy is left where one of the files cannot be opened or written.
template <typename Function>
void CopyInterfaces(const char *copyName, InterfacesRewriter rewriter, const Function &atEth0)
{
    const FilePointer file = OpenFile(paths::kInterfaces, "r");
    if (!file)
        return;
    const FilePointer copy = OpenFile(copyName, "w");
    if (!copy)
        return;
    bool written = true;
    std::string line;
    while (ReadInterfacesLine(file.get(), &line)) {
        std::string out;
        const bool isEth0 = rewriter.Take(line, &out);
        written &= std::fwrite(out.data(), 1, out.size(), copy.get()) == out.size();
        if (isEth0)
            atEth0();
    }
    written &= std::fflush(copy.get()) == 0 && fsync(fileno(copy.get())) == 0;
    if (!written)
        unlink(copyName);
}

void SyncInterfaces()
{
    const FilePointer file = OpenFile(paths::kInterfaces, "r");
    if (file)
        fsync(fileno(file.get()));
}

void CloseCustomSlot(std::size_t index)
{
    MonitorSession &slot = (*g_sessions)[index];
    if (slot.fd < 1)
        return;
    close(slot.fd);
    slot.fd = -1;
    slot.valid = 0;
}

void CloseCustomPort()
{
    if (g_sessions != nullptr) {
        CloseCustomSlot(kSlotCustomSessions);
        CloseCustomSlot(kSlotCustomDiscovery);
    }
    WriteCustomPortToFile(0);
    SetCustomPort(0);
}

// False when the socket could not be opened: the slot then stays shut.
bool OpenCustomSlot(std::size_t index, int port, int fd)
{
    MonitorSession &slot = (*g_sessions)[index];
    slot.localPort = port;
    slot.valid = fd >= 0 ? 1 : 0;
    slot.fd = fd;
    return fd >= 0;
}

void ChangeCustomPort(std::int32_t port)
{
    // QUIRK known-port-stays-closed: a port that was read at start in dynamic addressing counts as current
    // although nothing listens on it; the endpoints would be expected to open.
    if (port == GetCustomPort())
        return;
    CloseCustomPort();
    if (port < kMinCustomPort || port > kMaxCustomPort)
        return;
    SetCustomPort(port);
    if (g_sessions != nullptr &&
        (!OpenCustomSlot(kSlotCustomSessions, port, InitTcpSocket(kAnyAddress, port)) ||
         !OpenCustomSlot(kSlotCustomDiscovery, port, InitUdpSocket(kAnyAddress, port)))) {
        // Stored, it would end every start from now on.
        CloseCustomPort();
        return;
    }
    WriteCustomPortToFile(port);
}

void ApplyDhcp()
{
    CopyInterfaces(paths::kInterfacesDynamic, InterfacesRewriter::ForDhcp(), [] {});
    RunShell("cp /etc/network/interfaces_dynamic /etc/network/interfaces; "
             "rm /etc/network/interfaces_dynamic; rm /etc/resolv.conf");
    SyncInterfaces();
    RestartDhcpClient();
    SetFixedStatus(0);
    CloseCustomPort();
}

void ApplyFixed(const wire::UpdateLocalIP &request)
{
    // A restart that still runs or waits would have a late lease overwrite the address.
    DhcpWorker().Clear();
    CopyInterfaces(paths::kInterfacesStatic, InterfacesRewriter::ForFixed(FixedAddressOf(request)),
                   [&request] { ApplyAtOnce(request); });
    RunShell("cp /etc/network/interfaces_static /etc/network/interfaces; "
             "rm /etc/network/interfaces_static");
    RunShell("rm /etc/resolv.conf; echo \"nameserver 8.8.8.8\" >> /etc/resolv.conf");
    SyncInterfaces();
    SetFixedStatus(1);
    ChangeCustomPort(request.port);
}

} // namespace

int UpdateSystemIP(const wire::UpdateLocalIP *request)
{
    if (request == nullptr)
        return 0;
    // QUIRK second-request-acknowledges: a change is applied without an answer and answered, without being
    // applied, when it comes again; a request of zeros is answered at once. One request with one answer would
    // be expected.
    if (std::memcmp(request, &s_localIP, sizeof s_localIP) == 0) {
        s_localIP = {};
        return 1;
    }
    s_localIP = *request;
    if (request->dhcpFlag == kDhcp)
        ApplyDhcp();
    else
        ApplyFixed(*request);
    return 0;
}

void RestartDhcpClient()
{
    DhcpWorker().Put("killall -9 udhcpc; udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0");
}
