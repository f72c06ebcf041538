// SPDX-License-Identifier: MIT
// Datagrams of a hostile network: the first byte chooses the port's handler and how an address change ends,
// the rest is the datagram. They travel over the loopback interface; what is answered is compared with what
// the length and the identifier allow, and nothing is changed by a datagram that names another board.
#include "addressing/ip_config.h"
#include "base/sockets.h"
#include "common/unique_fd.h"
#include "discovery/search_services.h"
#include "records/discovery_records.h"
#include "remote/device_context.h"
#include "state/device_record.h"
#include "state/services.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>

namespace
{

constexpr char kId[] = "C3-0123456789"; // with its zero byte as long as the field
constexpr std::uint8_t kFixedPort = 1;  // bits of the first byte
constexpr std::uint8_t kChangeResult = 6;

int s_change;        // what an address change gives
int s_changes;       // how many were asked for
int s_serverChanges; // how often the remote server was set

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

void SetAddrParam(DeviceContext *, const char *addr, int, int, const char *username)
{
    Require(std::strlen(addr) <= 256 && std::strlen(username) <= 20);
    ++s_serverChanges;
}

ledboard::UniqueFd BoundToLoopback(sockaddr_in *address)
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    setsockopt(fd.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof *address;
    Require(bind(fd.Get(), reinterpret_cast<const sockaddr *>(address), sizeof *address) == 0 &&
            getsockname(fd.Get(), reinterpret_cast<sockaddr *>(address), &size) == 0);
    return fd;
}

struct Ends {
    Ends()
    {
        sockaddr_in own{};
        pc = BoundToLoopback(&own);
        board = BoundToLoopback(&address);
        g_device.setID(kId);
        g_deviceContext = new DeviceContext{};
        InitDeviceContext(g_deviceContext);
        g_deviceContext->SetAddrParam = SetAddrParam;
        g_deviceContext->ConnectToServer = [](DeviceContext *) {};
        g_deviceContext->DisconnectFromServer = [](DeviceContext *) {};
    }
    ledboard::UniqueFd pc;
    ledboard::UniqueFd board;
    sockaddr_in address{};
};

// The length of the answer that a datagram deserves; 0 none.
std::size_t Expected(wire::Bytes datagram, bool fixedPort)
{
    const auto command = wire::Read<wire::U32>(datagram, 15).value_or(0U);
    const auto names = [datagram](std::size_t offset) {
        return datagram.size() >= offset + sizeof kId &&
               std::memcmp(datagram.data() + offset, kId, sizeof kId) == 0;
    };
    switch (datagram.size()) {
    case 30:
        return 409;
    case 33:
        if (!names(19) || (fixedPort && command != 1))
            return 0;
        return command == 1 ? 41 : command == 2 || command == 5 ? 34 : command == 6 ? 315 : 0;
    case 49:
        return names(35) && (fixedPort ? s_change != 0 : s_change == 1) ? 49 : 0;
    case 315:
        return fixedPort ? 0 : 34;
    default:
        return 0;
    }
}

} // namespace

// In place of the daemon's own, which runs commands.
int UpdateSystemIP(const wire::UpdateLocalIP *request)
{
    Require(request != nullptr);
    ++s_changes;
    return s_change;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const Ends s_ends;
    if (size == 0 || size > 60000)
        return -1;
    const bool fixedPort = (data[0] & kFixedPort) != 0;
    s_change = (data[0] & kChangeResult) / 2;
    s_changes = 0;
    s_serverChanges = 0;
    const wire::Bytes datagram = wire::BytesAt(data + 1, size - 1);
    Require(sendto(s_ends.pc.Get(), datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr *>(&s_ends.address),
                   sizeof s_ends.address) == static_cast<ssize_t>(datagram.size()));
    const int result = (fixedPort ? DisposeUdpPacketInFixed : DisposeUdpPacket)(s_ends.board.Get());

    const std::size_t expected = Expected(datagram, fixedPort);
    std::array<std::uint8_t, 2048> reply{};
    const ssize_t count = recv(s_ends.pc.Get(), reply.data(), reply.size(), 0);
    Require(result == (expected != 0 ? 1 : 0));
    Require(expected == 0 ? count == -1 : count == static_cast<ssize_t>(expected));
    Require(s_changes == 0 || datagram.size() == 49);
    Require(s_serverChanges == (datagram.size() == 315 && !fixedPort ? 1 : 0));
    if (expected == 0)
        return 0;
    for (std::size_t index = 0; index < 15; ++index) // the header comes back but for its length
        Require(reply[index] == data[1 + index] || (expected != 49 && (index == 4 || index == 5)));
    Require(expected == 49 || reply[4] + 256U * reply[5] == expected);
    return 0;
}
