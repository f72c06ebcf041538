// SPDX-License-Identifier: MIT
#include "discovery/network_interfaces.h"

#include "common/pc/verb_error.h"

#include <ifaddrs.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace ledboard
{

std::vector<NetworkInterface> BroadcastInterfaces()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        throw SystemError("cannot list the network interfaces", errno);
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
    std::vector<NetworkInterface> found;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        constexpr unsigned kNeeded = IFF_UP | IFF_BROADCAST;
        if ((entry->ifa_flags & kNeeded) != kNeeded || (entry->ifa_flags & IFF_LOOPBACK) != 0)
            continue;
        // An interface is listed once per address.
        const unsigned index = if_nametoindex(entry->ifa_name); // 0 also for an alias such as eth0:1
        const bool known = std::any_of(found.begin(), found.end(),
                                       [=](const NetworkInterface &other) { return other.index == index; });
        if (index != 0 && !known)
            found.push_back({entry->ifa_name, index});
    }
    return found;
}

NetworkInterface InterfaceNamed(const std::string &name)
{
    const unsigned index = if_nametoindex(name.c_str());
    if (index == 0)
        throw VerbError(ExitStatus::kUsage, "this PC has no network interface '" + name + "'");
    return {name, index};
}

std::string InterfaceName(unsigned index)
{
    char name[IF_NAMESIZE] = "";
    return if_indextoname(index, name) == nullptr ? "" : name;
}

} // namespace ledboard
