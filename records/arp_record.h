// SPDX-License-Identifier: MIT
// records/arp_record.h: an ARP packet without its Ethernet header (RFC 826), as the address probe sends and
// hears it (docs/protocols.md, "Link-local addressing"). Numbers are in network byte order and stay bytes
// here.
#pragma once

#include "records/wire_types.h"

namespace wire
{

struct ArpPacket {
    U8 hardwareType[2];
    U8 protocolType[2];
    U8 hardwareSize;
    U8 protocolSize;
    U8 operation[2];
    U8 senderHardware[6];
    U8 senderProtocol[4];
    U8 targetHardware[6];
    U8 targetProtocol[4];
};
static_assert(sizeof(ArpPacket) == 28);
static_assert(offsetof(ArpPacket, hardwareType) == 0);
static_assert(offsetof(ArpPacket, protocolType) == 2);
static_assert(offsetof(ArpPacket, hardwareSize) == 4);
static_assert(offsetof(ArpPacket, protocolSize) == 5);
static_assert(offsetof(ArpPacket, operation) == 6);
static_assert(offsetof(ArpPacket, senderHardware) == 8);
static_assert(offsetof(ArpPacket, senderProtocol) == 14);
static_assert(offsetof(ArpPacket, targetHardware) == 18);
static_assert(offsetof(ArpPacket, targetProtocol) == 24);

constexpr std::uint16_t kArpEthernet = 1;
constexpr std::uint16_t kArpIpv4 = 0x0800;
constexpr std::uint16_t kArpRequest = 1;
constexpr std::uint16_t kArpReply = 2;

} // namespace wire
