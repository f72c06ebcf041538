// SPDX-License-Identifier: MIT
// tests/board/discovery_packets.h: sizes, status commands and header of discovery's datagrams, typed by hand.
#pragma once

#include "peer.h"

// Of datagrams, in bytes: the size alone says what a request is.
constexpr std::size_t kSearchSize = 30;
constexpr std::size_t kStatusSize = 33;
constexpr std::size_t kAddressChangeSize = 49;
constexpr std::size_t kSetServerSize = 315;
constexpr std::size_t kSearchReplySize = 409;
constexpr std::size_t kAddressingReplySize = 41;
constexpr std::size_t kServerReplySize = 34;
constexpr std::size_t kServerAddressReplySize = 315;

constexpr std::size_t kHeaderSize = 15;
constexpr std::size_t kIdSize = 14;
constexpr std::size_t kServerAddressSize = 282;

// Places in a search reply.
constexpr std::size_t kIdAt = 28;
constexpr std::size_t kAddressAt = 59;
constexpr std::size_t kMaskAt = 63;
constexpr std::size_t kGatewayAt = 67;

enum StatusCommand : std::uint32_t {
    kStatusAddressing = 1,
    kStatusServerConnected = 2,
    kStatusSetServer = 4, // in a reply only
    kStatusForgetServer = 5,
    kStatusServerAddress = 6,
};

// The header of discovery and of uploads.
inline std::string ProtocolHeader(std::uint16_t version, std::size_t length, char type,
                                  std::uint32_t dataCrc = 0, std::uint32_t headCrc = 0)
{
    return "ft" + Le16(version) + Le16(length) + type + Le32(dataCrc) + Le32(headCrc);
}
