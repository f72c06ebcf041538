// SPDX-License-Identifier: MIT
// common/address.h: IPv4 addresses as dotted text. The byte order is in the name, so that no caller has to
// guess it.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>

namespace ledboard
{

std::string Dotted(in_addr address);                      // network byte order: "10.20.30.2"
std::string DottedFromHostOrder(std::uint32_t hostOrder); // 0x0A141E02: "10.20.30.2"

} // namespace ledboard
