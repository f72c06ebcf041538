// SPDX-License-Identifier: MIT
#include "discovery/endpoint.h"

#include "common/address.h"

#include <fmt/format.h>

namespace ledboard
{

std::string FormatEndpoint(const Endpoint &endpoint)
{
    return fmt::format("{}:{}", Dotted(endpoint.address), endpoint.port);
}

sockaddr_in SocketAddress(const Endpoint &endpoint)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr = endpoint.address;
    return address;
}

} // namespace ledboard
