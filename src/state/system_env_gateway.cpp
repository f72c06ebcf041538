// SPDX-License-Identifier: MIT
// The default gateway, asked of the kernel over route netlink (RFC 3549; message layout as in
// <linux/rtnetlink.h>).
#include "base/sockets.h"
#include "common/unique_fd.h"
#include "state/system_env.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace
{

struct RouteRequest {
    nlmsghdr header;
    rtmsg route;
};

// What one reply says of the dump.
enum class Verdict { kMore, kDone, kFailed };

constexpr std::uint32_t kSequence = 0;

std::uint32_t OwnPortId(int fd)
{
    sockaddr_nl address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    return address.nl_pid;
}

bool SendRequest(int fd)
{
    RouteRequest request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = kSequence;
    request.header.nlmsg_pid = OwnPortId(fd);
    request.route.rtm_family = AF_INET;
    return SendBytes(fd, wire::BytesAt(&request, sizeof request)) == sizeof request;
}

// Looks at the messages of one receive without their contents.
Verdict Judge(wire::Bytes received, std::uint32_t portId)
{
    while (received.size() >= sizeof(nlmsghdr)) {
        nlmsghdr header;
        std::memcpy(&header, received.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > received.size() ||
            header.nlmsg_type == NLMSG_ERROR)
            return Verdict::kFailed;
        if (header.nlmsg_type == NLMSG_DONE || (header.nlmsg_flags & NLM_F_MULTI) == 0 ||
            header.nlmsg_seq != kSequence || header.nlmsg_pid != portId)
            return Verdict::kDone;
        received = received.subspan(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), received.size()));
    }
    return received.empty() ? Verdict::kMore : Verdict::kFailed;
}

// The whole dump, or nothing when it failed.
std::optional<std::vector<std::byte>> ReceiveDump(int fd)
{
    std::vector<std::byte> dump;
    const std::uint32_t portId = OwnPortId(fd);
    for (;;) {
        std::array<std::byte, 8192> part;
        const ssize_t count = recv(fd, part.data(), part.size(), 0);
        if (count == -1 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return dump;
        const wire::Bytes received = wire::Bytes(part).first(static_cast<std::size_t>(count));
        const Verdict verdict = Judge(received, portId);
        if (verdict == Verdict::kFailed)
            return std::nullopt;
        dump.insert(dump.end(), received.begin(), received.end());
        if (verdict == Verdict::kDone)
            return dump;
    }
}

// One route of the main table.
struct Route {
    std::string interface;
    in_addr destination{};
    in_addr gateway{};
};

std::optional<Route> ParseRoute(wire::Bytes message)
{
    rtmsg head;
    if (message.size() < sizeof(nlmsghdr) + sizeof head)
        return std::nullopt;
    std::memcpy(&head, message.data() + sizeof(nlmsghdr), sizeof head);
    if (head.rtm_family != AF_INET || head.rtm_table != RT_TABLE_MAIN)
        return std::nullopt;
    Route route;
    wire::Bytes attributes = message.subspan(NLMSG_LENGTH(sizeof head));
    while (attributes.size() >= sizeof(rtattr)) {
        rtattr attribute;
        std::memcpy(&attribute, attributes.data(), sizeof attribute);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > attributes.size())
            break;
        const wire::Bytes value = attributes.subspan(sizeof attribute, attribute.rta_len - sizeof attribute);
        const auto number = wire::Read<wire::U32>(value).value_or(wire::U32(0));
        char name[IF_NAMESIZE] = {};
        if (attribute.rta_type == RTA_DST)
            route.destination.s_addr = number;
        else if (attribute.rta_type == RTA_GATEWAY)
            route.gateway.s_addr = number;
        else if (attribute.rta_type == RTA_OIF && if_indextoname(number, name) != nullptr)
            route.interface = name;
        attributes =
            attributes.subspan(std::min<std::size_t>(RTA_ALIGN(attribute.rta_len), attributes.size()));
    }
    return route;
}

} // namespace

int GetDefaultGateway(const char *ifname, char *text)
{
    const ledboard::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd.Valid())
        return -1;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1 ||
        !SendRequest(fd.Get()))
        return -1;
    const auto dump = ReceiveDump(fd.Get());
    if (!dump)
        return -1;
    int result = -1;
    for (wire::Bytes left(*dump); left.size() >= sizeof(nlmsghdr);) {
        nlmsghdr header;
        std::memcpy(&header, left.data(), sizeof header);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > left.size())
            break; // behind the last message the dump was not looked at
        const wire::Bytes message = left.first(header.nlmsg_len);
        left = left.subspan(std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), left.size()));
        if (header.nlmsg_type != RTM_NEWROUTE)
            continue;
        const auto route = ParseRoute(message);
        if (!route || route->destination.s_addr != 0 || route->gateway.s_addr == 0 ||
            route->interface != ifname)
            continue;
        inet_ntop(AF_INET, &route->gateway, text, INET_ADDRSTRLEN);
        result = 0;
    }
    return result;
}
