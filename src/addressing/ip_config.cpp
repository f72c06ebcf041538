// SPDX-License-Identifier: MIT
#include "addressing/ip_config.h"

#include "addressing/interfaces_file.h"
#include "base/command_worker.h"
#include "base/files.h"
#include "base/listeners.h"
#include "base/paths.h"
#include "base/shell.h"
#include "common/address.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/monitor_slots.h"
#include "state/server_config.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>

namespace
{

wire::UpdateLocalIP s_localIP{}; // the last request applied; zeros after its acknowledgement

constexpr std::int32_t kDhcp = 1;
constexpr char kAnyAddress[] = "0.0.0.0";

// Runs the restarts of the DHCP client off the main thread. Never destroyed: its thread may run while the
// process ends.
CommandWorker &DhcpWorker()
{
    static auto *const s_worker = new CommandWorker;
    return *s_worker;
}

// The request's addresses are in network byte order.
in_addr Address(wire::I32 field)
{
    return {static_cast<std::uint32_t>(std::int32_t{field})};
}

std::int32_t HostOrder(wire::I32 field)
{
    return static_cast<std::int32_t>(ntohl(Address(field).s_addr));
}

FixedAddress FixedAddressOf(const wire::UpdateLocalIP &request)
{
    const in_addr network{Address(request.ip).s_addr & Address(request.mask).s_addr};
    return {.address = ledboard::Dotted(Address(request.ip)),
            .netmask = ledboard::Dotted(Address(request.mask)),
            .network = ledboard::Dotted(network),
            .gateway = ledboard::Dotted(Address(request.gateway))};
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

// Copies the interfaces file to `copyName` through the rewriter and calls `atEth0` at every line that
// configures eth0. If a file cannot be opened or written, no copy is left: the caller's "cp" then fails and
// the interfaces file stays as it is.
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

// False if `fd` is not a socket; the slot then stays closed.
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
        // If it were stored, the work loop could not open its listeners at the next start.
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
    SyncFile(paths::kInterfaces); // the new configuration must survive a power cut
    RestartDhcpClient();
    SetFixedStatus(0);
    CloseCustomPort();
}

void ApplyFixed(const wire::UpdateLocalIP &request)
{
    // A restart that runs or is queued could bring a late lease, which would replace the fixed address.
    DhcpWorker().Clear();
    CopyInterfaces(paths::kInterfacesStatic, InterfacesRewriter::ForFixed(FixedAddressOf(request)),
                   [&request] { ApplyAtOnce(request); });
    RunShell("cp /etc/network/interfaces_static /etc/network/interfaces; "
             "rm /etc/network/interfaces_static");
    RunShell("rm /etc/resolv.conf; echo \"nameserver 8.8.8.8\" >> /etc/resolv.conf");
    SyncFile(paths::kInterfaces); // the new configuration must survive a power cut
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
