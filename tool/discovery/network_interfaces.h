// SPDX-License-Identifier: MIT
// tool/discovery/network_interfaces.h: the PC's interfaces on which boards can be asked.
#pragma once

#include <string>
#include <vector>

namespace ledboard
{

struct NetworkInterface {
    std::string name;
    unsigned index;
};

// All that are up and can broadcast, with or without an address or a route.
std::vector<NetworkInterface> BroadcastInterfaces();

// Throws VerbError(kUsage) when there is none of that name.
NetworkInterface InterfaceNamed(const std::string &name);

std::string InterfaceName(unsigned index); // empty when there is none

} // namespace ledboard
