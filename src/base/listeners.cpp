// SPDX-License-Identifier: MIT
#include "base/listeners.h"

#include "base/diag.h"
#include "common/unique_fd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>

namespace
{

// The log names the units that use the two sockets.
constexpr char kTcpUnit[] = "src/network.c";
constexpr char kUdpUnit[] = "src/search_services.c";

} // namespace

int InitTcpSocket(const char *address, int port)
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.Valid()) {
        DiagErrno(kTcpUnit, __func__, __LINE__, "create tcp socket fail: ");
        return -1;
    }
    // A restart must not wait for the connections of the process before it to time out.
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    local.sin_addr.s_addr = inet_addr(address);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == -1) {
        DiagErrno(kTcpUnit, __func__, __LINE__, "tcp port %d bind fail: ", port);
        return -1;
    }
    if (listen(fd.Get(), 1) == -1) {
        DiagErrno(kTcpUnit, __func__, __LINE__, "tcp port %d listenning fail: ", port);
        return -1;
    }
    std::printf("[---init tcp %d port success.---]\n", port);
    return fd.Release();
}

int InitUdpSocket(const char *address, int port)
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.Valid()) {
        DiagErrno(kUdpUnit, __func__, __LINE__, "create udp socket fail: ");
        return -1;
    }
    // Broadcast: some answers go to everyone. Packet information: it says by which interface a packet came.
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(fd.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    local.sin_addr.s_addr = inet_addr(address);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == -1) {
        DiagErrno(kUdpUnit, __func__, __LINE__, "udp port %d bind fail: ", port);
        return -1;
    }
    std::printf("[---init udp %d port success.---]\n", port);
    return fd.Release();
}
