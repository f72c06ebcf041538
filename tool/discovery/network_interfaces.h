// SPDX-License-Identifier: MIT
// tool/discovery/network_interfaces.h: the PC's network interfaces on which boards can be searched for.
#pragma once

#include <string>
#include <vector>

namespace ledboard
{

struct NetworkInterface {
    std::string name;
    unsigned index;
};

// All that are up and can broadcast, with or without an address or a route. Throws VerbError.
std::vector<NetworkInterface> BroadcastInterfaces();

// Throws VerbError(kUsage) if no interface has that name.
NetworkInterface InterfaceNamed(const std::string &name);

std::string InterfaceName(unsigned index); // empty if there is no such interface

} // namespace ledboard
