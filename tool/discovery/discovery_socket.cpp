// SPDX-License-Identifier: MIT
#include "discovery/discovery_socket.h"

#include "common/pc/verb_error.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace ledboard
{

namespace
{

// Several hundred boards answer within a millisecond, and a PC's default buffer holds 166 such answers. Root
// gets the size wanted here, other users at most the system's limit (net.core.rmem_max).
void EnlargeReceiveBuffer(int fd)
{
    const int wanted = 8 * 1024 * 1024;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &wanted, sizeof wanted) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &wanted, sizeof wanted);
}

} // namespace

DiscoverySocket::DiscoverySocket(const std::string &interfaceName)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    if (!interfaceName.empty())
        only_ = InterfaceNamed(interfaceName);
    const int on = 1;
    const sockaddr_in any = SocketAddress({});
    if (fd_.Get() < 0 || setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        setsockopt(fd_.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
        bind(fd_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any) != 0)
        throw SystemError("cannot open a socket for discovery", errno);
    EnlargeReceiveBuffer(fd_.Get());
}

void DiscoverySocket::Broadcast(wire::Bytes datagram, std::uint16_t port)
{
    const std::vector<NetworkInterface> interfaces =
        only_ ? std::vector<NetworkInterface>{*only_} : BroadcastInterfaces();
    if (interfaces.empty())
        throw VerbError(ExitStatus::kFailed, "no network interface of this PC is up");
    int sent = 0;
    int lastError = 0;
    for (const NetworkInterface &interface : interfaces) {
        if (BroadcastOn(interface.index, datagram, port) == 1)
            ++sent;
        else
            lastError = errno;
    }
    if (sent == 0)
        throw SystemError("cannot broadcast on " + (only_ ? only_->name : "any interface"), lastError);
}

int DiscoverySocket::BroadcastOn(unsigned interface, wire::Bytes datagram, std::uint16_t port)
{
    return Send({{INADDR_BROADCAST}, port}, interface, datagram);
}

int DiscoverySocket::SendOn(unsigned interface, const Endpoint &board, wire::Bytes datagram)
{
    return Send(board, interface, datagram);
}

int DiscoverySocket::SendTo(const Endpoint &board, wire::Bytes datagram)
{
    return Send(board, only_ ? only_->index : 0, datagram);
}

int DiscoverySocket::Send(const Endpoint &to, unsigned interface, wire::Bytes datagram)
{
    sockaddr_in address = SocketAddress(to);
    in_pktinfo info = {};
    info.ipi_ifindex = static_cast<int>(interface);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof info)] = {};
    iovec data = {const_cast<std::byte *>(datagram.data()), datagram.size()};
    msghdr message = {};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (interface != 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = IPPROTO_IP;
        header->cmsg_type = IP_PKTINFO;
        header->cmsg_len = CMSG_LEN(sizeof info);
        std::memcpy(CMSG_DATA(header), &info, sizeof info);
    }
    ssize_t sent = -1;
    do
        sent = sendmsg(fd_.Get(), &message, 0);
    while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(datagram.size()) ? 1 : -1;
}

bool DiscoverySocket::WaitForDatagram(Clock::time_point deadline)
{
    return WaitFor(fd_.Get(), POLLIN, deadline);
}

std::optional<Datagram> DiscoverySocket::Receive()
{
    Datagram datagram = {std::vector<std::byte>(2048), {}, 0};
    sockaddr_in source = {};
    alignas(cmsghdr) char control[256];
    iovec data = {datagram.bytes.data(), datagram.bytes.size()};
    msghdr message = {};
    message.msg_name = &source;
    message.msg_namelen = sizeof source;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t received = recvmsg(fd_.Get(), &message, MSG_DONTWAIT);
    if (received < 0)
        return std::nullopt; // no datagram, or the error of one that could not be delivered
    datagram.bytes.resize(static_cast<std::size_t>(received));
    datagram.source = {source.sin_addr, ntohs(source.sin_port)};
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != IPPROTO_IP || header->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo info;
        std::memcpy(&info, CMSG_DATA(header), sizeof info);
        datagram.interface = static_cast<unsigned>(info.ipi_ifindex);
    }
    return datagram;
}

} // namespace ledboard
