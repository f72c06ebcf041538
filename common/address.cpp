// SPDX-License-Identifier: MIT
#include "common/address.h"

#include <arpa/inet.h>

namespace ledboard
{

std::string Dotted(in_addr address)
{
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string DottedFromHostOrder(std::uint32_t hostOrder)
{
    return Dotted(in_addr{htonl(hostOrder)});
}

} // namespace ledboard
