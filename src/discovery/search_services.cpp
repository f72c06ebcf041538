// SPDX-License-Identifier: MIT
#include "discovery/search_services.h"

#include "addressing/ip_config.h"
#include "base/diag.h"
#include "base/sockets.h"
#include "common/unique_fd.h"
#include "remote/device_context.h"
#include "sessions/client_session.h"
#include "state/addressing_mode.h"
#include "state/device_record.h"
#include "state/services.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/search_services.c";
constexpr std::size_t kMaxDatagram = 1024;

// One datagram, and where its reply goes.
struct Datagram {
    std::array<std::byte, kMaxDatagram> buffer;
    std::size_t size = 0;
    sockaddr_in sender{};
    sockaddr_in replyTo{};
    int interface = 0; // index of the interface that it came in by, 0 when the kernel did not say

    wire::Bytes Received() const { return wire::Bytes(buffer).first(size); }
};

int InterfaceOf(msghdr *message)
{
    for (cmsghdr *part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level != IPPROTO_IP || part->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo information;
        std::memcpy(&information, CMSG_DATA(part), sizeof information);
        return information.ipi_ifindex;
    }
    return 0;
}

bool Receive(int fd, Datagram *datagram)
{
    iovec room{.iov_base = datagram->buffer.data(), .iov_len = datagram->buffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &datagram->sender;
    message.msg_namelen = sizeof datagram->sender;
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t count;
    do {
        count = recvmsg(fd, &message, 0);
    } while (count == -1 && errno == EINTR);
    if (count < 0)
        return false;
    datagram->size = static_cast<std::size_t>(count);
    datagram->replyTo = datagram->sender;
    datagram->interface = InterfaceOf(&message);
    return true;
}

// Sends through the interface by which the request came: a board without a default route would otherwise be
// unable to broadcast. A failure is ignored; the peer asks again.
void SendBack(int fd, const Datagram &datagram, wire::Bytes reply)
{
    sockaddr_in destination = datagram.replyTo;
    iovec bytes{.iov_base = const_cast<std::byte *>(reply.data()), .iov_len = reply.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &destination;
    message.msg_namelen = sizeof destination;
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *const part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = IPPROTO_IP;
    part->cmsg_type = IP_PKTINFO;
    part->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo information{};
    information.ipi_ifindex = datagram.interface;
    std::memcpy(CMSG_DATA(part), &information, sizeof information);
    sendmsg(fd, &message, MSG_NOSIGNAL);
}

// Sends a reply that begins with the request's own header, in which only the length changes.
template <wire::Record Reply> int Answer(int fd, const Datagram &datagram, Reply reply)
{
    reply.header = *wire::Read<wire::ProtocolHeader>(datagram.Received());
    reply.header.ph_length = static_cast<std::uint16_t>(sizeof reply);
    SendBack(fd, datagram, wire::BytesOf(reply));
    return 1;
}

void DecideReplyAddress(Datagram *datagram)
{
    const wire::DeviceRecord record = g_device.Copy();
    // QUIRK mixed-order: the sender's address in host byte order is compared with the record's in network
    // byte order (after start), so that most replies are broadcast; both in the same order would be expected.
    const std::uint32_t sender = ntohl(datagram->sender.sin_addr.s_addr);
    const auto own = static_cast<std::uint32_t>(record.ipaddr);
    const auto mask = static_cast<std::uint32_t>(record.maskaddr);
    if (((sender ^ own) & mask) != 0)
        datagram->replyTo.sin_addr.s_addr = htonl(INADDR_BROADCAST);
}

bool IsOwnId(const char *id, const wire::DeviceRecord &record)
{
    return std::memcmp(id, record.id, sizeof record.id) == 0;
}

int AnswerSearch(int fd, const Datagram &datagram)
{
    UpdateClientSession(static_cast<std::int32_t>(datagram.sender.sin_addr.s_addr));
    wire::SearchReply reply{};
    reply.answer.command = wire::kAnswerIpAddressCommand;
    reply.answer.info = g_device.Information();
    reply.answer.address = reply.answer.info.record.ipaddr;
    return Answer(fd, datagram, reply);
}

int AnswerAddressing(int fd, const Datagram &datagram, const wire::DeviceRecord &record)
{
    wire::DeviceStatusReply reply{};
    reply.status.cmd = wire::kStatusAddressing;
    reply.status.status = GetFixedStatus() == 0 ? 1 : 0;
    reply.status.port = GetCustomPort();
    std::memcpy(reply.status.id, record.id, sizeof record.id);
    return Answer(fd, datagram, reply);
}

wire::RemoteStatusReply RemoteStatus(std::uint32_t command, bool connected)
{
    wire::RemoteStatusReply reply{};
    reply.cmd = command;
    std::memcpy(reply.id, g_device.Copy().id, sizeof reply.id);
    reply.connected = connected ? 1 : 0;
    return reply;
}

bool ServerIsConnected()
{
    return g_deviceContext->GetSocketFD(g_deviceContext) >= 0;
}

int AnswerConnected(int fd, const Datagram &datagram)
{
    Diag(kUnit, __func__, __LINE__, "DEVICE_STATUS_CONNECT_SERVER");
    return Answer(fd, datagram, RemoteStatus(wire::kStatusConnectServer, ServerIsConnected()));
}

int AnswerDisconnect(int fd, const Datagram &datagram)
{
    Diag(kUnit, __func__, __LINE__, "DISCONNECT_FROM_REMOTE_SERVER");
    g_deviceContext->DisconnectFromServer(g_deviceContext);
    return Answer(fd, datagram, RemoteStatus(wire::kStatusDisconnectServer, ServerIsConnected()));
}

int AnswerRemoteAddress(int fd, const Datagram &datagram, const wire::DeviceRecord &record)
{
    Diag(kUnit, __func__, __LINE__, "GET_REMOTE_ADDR");
    wire::RemoteAddressReply reply{};
    reply.cmd = wire::kStatusGetRemoteAddress;
    std::memcpy(reply.id, record.id, sizeof record.id);
    reply.server = g_deviceContext->GetAddrParam(g_deviceContext);
    return Answer(fd, datagram, reply);
}

int AnswerStatusCommand(int fd, const Datagram &datagram)
{
    const auto request = *wire::Read<wire::StatusRequest>(datagram.Received());
    const wire::DeviceRecord record = g_device.Copy();
    if (!IsOwnId(request.id, record))
        return 0;
    switch (request.cmd) {
    case wire::kStatusAddressing:
        return AnswerAddressing(fd, datagram, record);
    case wire::kStatusConnectServer:
        return AnswerConnected(fd, datagram);
    case wire::kStatusDisconnectServer:
        return AnswerDisconnect(fd, datagram);
    case wire::kStatusGetRemoteAddress:
        return AnswerRemoteAddress(fd, datagram, record);
    default:
        return 0;
    }
}

// The result of UpdateSystemIP; nothing when the request names another board.
std::optional<int> ChangeAddress(const Datagram &datagram)
{
    const auto request = *wire::Read<wire::AddressChangeRequest>(datagram.Received());
    if (!IsOwnId(request.change.id, g_device.Copy()))
        return std::nullopt;
    return UpdateSystemIP(&request.change);
}

int Echo(int fd, const Datagram &datagram)
{
    SendBack(fd, datagram, datagram.Received());
    return 1;
}

int AnswerSetRemoteServer(int fd, const Datagram &datagram)
{
    Diag(kUnit, __func__, __LINE__, "SET_REMOTE_ADDR");
    const auto request = *wire::Read<wire::SetRemoteServerRequest>(datagram.Received());
    // QUIRK set-server-any-id: the identifier is not compared; every other request is only obeyed by the
    // board it names.
    std::array<char, sizeof request.server.addr + 1> addr{};
    std::memcpy(addr.data(), request.server.addr, sizeof request.server.addr);
    std::array<char, sizeof request.server.username + 1> username{};
    std::memcpy(username.data(), request.server.username, sizeof request.server.username);
    g_deviceContext->DisconnectFromServer(g_deviceContext);
    g_deviceContext->SetAddrParam(g_deviceContext, addr.data(), request.server.domainFlag,
                                  request.server.port, username.data());
    g_deviceContext->ConnectToServer(g_deviceContext);
    return Answer(fd, datagram, RemoteStatus(wire::kStatusSetRemoteAddress, true));
}

} // namespace

int DisposeUdpPacket(int fd)
{
    Datagram datagram;
    if (!Receive(fd, &datagram))
        return -1;
    DecideReplyAddress(&datagram);
    switch (datagram.size) {
    case sizeof(wire::SearchRequest):
        return AnswerSearch(fd, datagram);
    case sizeof(wire::StatusRequest):
        return AnswerStatusCommand(fd, datagram);
    case sizeof(wire::AddressChangeRequest):
        return ChangeAddress(datagram) == 1 ? Echo(fd, datagram) : 0;
    case sizeof(wire::SetRemoteServerRequest):
        return AnswerSetRemoteServer(fd, datagram);
    default:
        return 0;
    }
}

int DisposeUdpPacketInFixed(int fd)
{
    Datagram datagram;
    if (!Receive(fd, &datagram))
        return -1;
    switch (datagram.size) {
    case sizeof(wire::SearchRequest):
        return AnswerSearch(fd, datagram);
    case sizeof(wire::StatusRequest): {
        const auto request = *wire::Read<wire::StatusRequest>(datagram.Received());
        const wire::DeviceRecord record = g_device.Copy();
        if (request.cmd != wire::kStatusAddressing || !IsOwnId(request.id, record))
            return 0;
        return AnswerAddressing(fd, datagram, record);
    }
    case sizeof(wire::AddressChangeRequest):
        return ChangeAddress(datagram).value_or(0) != 0 ? Echo(fd, datagram) : 0;
    default:
        return 0;
    }
}

void UpdateBroadcastPacket() {}
