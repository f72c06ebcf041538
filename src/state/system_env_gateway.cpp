// SPDX-License-Identifier: MIT
// The default gateway, as the kernel's routing table has it.
#include "base/rtnetlink.h"
#include "state/system_env.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <string>

namespace
{

struct Route {
    std::string interface;
    in_addr destination{}; // 0: default route, which has no such attribute
    in_addr gateway{};     // 0: the destination is on the link
};

// An IPv4 route of the main table; nothing for any other message.
std::optional<Route> ParseRoute(const NetlinkMessage &message)
{
    const auto head = ReadKernelStruct<rtmsg>(message.body);
    if (message.header.nlmsg_type != RTM_NEWROUTE || !head || head->rtm_family != AF_INET ||
        head->rtm_table != RT_TABLE_MAIN)
        return std::nullopt;
    Route route;
    wire::Bytes attributes = message.body.subspan(sizeof *head);
    while (const auto attribute = TakeNetlinkAttribute(&attributes)) {
        const auto number = wire::Read<wire::U32>(attribute->value).value_or(wire::U32(0));
        char name[IF_NAMESIZE] = {};
        if (attribute->type == RTA_DST)
            route.destination.s_addr = number;
        else if (attribute->type == RTA_GATEWAY)
            route.gateway.s_addr = number;
        else if (attribute->type == RTA_OIF && if_indextoname(number, name) != nullptr)
            route.interface = name;
    }
    return route;
}

} // namespace

int GetDefaultGateway(const char *ifname, char *text)
{
    rtmsg request{};
    request.rtm_family = AF_INET;
    const auto dump = DumpRtnetlink(RTM_GETROUTE, wire::BytesAt(&request, sizeof request));
    if (!dump)
        return -1;
    int result = -1;
    wire::Bytes left(*dump);
    while (const auto message = TakeNetlinkMessage(&left)) {
        const auto route = ParseRoute(*message);
        if (!route || route->destination.s_addr != 0 || route->gateway.s_addr == 0 ||
            route->interface != ifname)
            continue;
        inet_ntop(AF_INET, &route->gateway, text, INET_ADDRSTRLEN);
        result = 0;
    }
    return result;
}
