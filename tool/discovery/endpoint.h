// SPDX-License-Identifier: MIT
// tool/discovery/endpoint.h: an IPv4 address with a port.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace ledboard
{

struct Endpoint {
    in_addr address{};
    std::uint16_t port = 0; // host byte order
    bool operator==(const Endpoint &other) const
    {
        return address.s_addr == other.address.s_addr && port == other.port;
    }
};

std::string FormatEndpoint(const Endpoint &endpoint); // "10.0.0.7:8878"
sockaddr_in SocketAddress(const Endpoint &endpoint);

} // namespace ledboard
