// SPDX-License-Identifier: MIT
#include "base/rtnetlink.h"

#include "base/sockets.h"
#include "common/unique_fd.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace
{

constexpr std::uint32_t kSequence = 0; // every request has a socket of its own

using ReceiveBuffer = std::array<std::byte, 8192>; // the kernel fills a datagram of a dump up to this size

enum class DumpState { kMore, kDone, kFailed };

// The kernel chooses the port id: the one that equals the process id belongs to the socket for link events.
ledboard::UniqueFd Open()
{
    ledboard::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (fd.Valid() && bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1)
        fd.Reset();
    return fd;
}

std::uint32_t OwnPortId(int fd)
{
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return address.nl_pid;
}

bool Send(int fd, std::uint16_t type, int flags, wire::Bytes body)
{
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    header.nlmsg_seq = kSequence;
    header.nlmsg_pid = OwnPortId(fd);
    const wire::Bytes head = wire::BytesAt(&header, sizeof header);
    std::vector<std::byte> request(head.begin(), head.end());
    request.insert(request.end(), body.begin(), body.end());
    return SendBytes(fd, request) == static_cast<long>(request.size());
}

// One datagram; nothing, with errno, if none could be received.
std::optional<wire::Bytes> Receive(int fd, ReceiveBuffer *buffer)
{
    ssize_t count;
    do {
        count = recv(fd, buffer->data(), buffer->size(), 0);
    } while (count == -1 && errno == EINTR);
    if (count < 0)
        return std::nullopt;
    return wire::Bytes(*buffer).first(static_cast<std::size_t>(count));
}

// What one datagram says about the progress of the dump.
DumpState StateAfter(wire::Bytes received, std::uint32_t portId)
{
    if (received.empty())
        return DumpState::kDone;
    while (const auto message = TakeNetlinkMessage(&received)) {
        const nlmsghdr &header = message->header;
        if (header.nlmsg_type == NLMSG_ERROR)
            return DumpState::kFailed;
        if (header.nlmsg_type == NLMSG_DONE || (header.nlmsg_flags & NLM_F_MULTI) == 0 ||
            header.nlmsg_seq != kSequence || header.nlmsg_pid != portId)
            return DumpState::kDone;
    }
    return received.empty() ? DumpState::kMore : DumpState::kFailed;
}

// `length` is valid: at least a header's, at most left->size(). The padding of the last one may be missing.
void Skip(wire::Bytes *left, std::size_t length)
{
    static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO);
    *left = left->subspan(std::min<std::size_t>(NLMSG_ALIGN(length), left->size()));
}

} // namespace

std::optional<NetlinkMessage> TakeNetlinkMessage(wire::Bytes *left)
{
    const auto header = ReadKernelStruct<nlmsghdr>(*left);
    if (!header || header->nlmsg_len < sizeof *header || header->nlmsg_len > left->size())
        return std::nullopt;
    const NetlinkMessage message{.header = *header,
                                 .body = left->first(header->nlmsg_len).subspan(sizeof *header)};
    Skip(left, header->nlmsg_len);
    return message;
}

std::optional<NetlinkAttribute> TakeNetlinkAttribute(wire::Bytes *left)
{
    const auto header = ReadKernelStruct<rtattr>(*left);
    if (!header || header->rta_len < sizeof *header || header->rta_len > left->size())
        return std::nullopt;
    const NetlinkAttribute attribute{.type = header->rta_type,
                                     .value = left->first(header->rta_len).subspan(sizeof *header)};
    Skip(left, header->rta_len);
    return attribute;
}

bool RequestRtnetlink(std::uint16_t type, std::uint16_t flags, wire::Bytes body)
{
    const ledboard::UniqueFd fd = Open();
    if (!fd.Valid() || !Send(fd.Get(), type, NLM_F_ACK | flags, body))
        return false;
    // The kernel serves a request before the send returns, so that this does not block.
    ReceiveBuffer buffer;
    auto received = Receive(fd.Get(), &buffer);
    if (!received)
        return false;
    const auto message = TakeNetlinkMessage(&*received);
    std::optional<int> error; // an acknowledgement is an error message with the error 0
    if (message && message->header.nlmsg_type == NLMSG_ERROR)
        error = ReadKernelStruct<int>(message->body);
    errno = error ? -*error : EBADMSG;
    return error == 0;
}

std::optional<std::vector<std::byte>> DumpRtnetlink(std::uint16_t type, wire::Bytes body)
{
    const ledboard::UniqueFd fd = Open();
    if (!fd.Valid() || !Send(fd.Get(), type, NLM_F_DUMP, body))
        return std::nullopt;
    const std::uint32_t portId = OwnPortId(fd.Get());
    std::vector<std::byte> dump;
    for (;;) {
        ReceiveBuffer buffer;
        const auto received = Receive(fd.Get(), &buffer);
        if (!received)
            return std::nullopt;
        const DumpState state = StateAfter(*received, portId);
        if (state == DumpState::kFailed)
            return std::nullopt;
        dump.insert(dump.end(), received->begin(), received->end());
        if (state == DumpState::kDone)
            return dump;
    }
}
