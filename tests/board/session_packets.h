// SPDX-License-Identifier: MIT
// tests/board/session_packets.h: login and framing of a session, typed by hand.
#pragma once

#include "peer.h"

enum SubType : std::uint32_t { kUpload = 0, kSettings = 1, kFirmware = 2, kPlayer = 3, kModem = 4 };

enum LoginStatus : char { kLoginRefused = 0, kLoginAccepted = 1, kLoginUpgrading = 2, kLoginModem = 4 };

inline std::string Login(std::uint32_t subType)
{
    constexpr std::uint32_t kLength = 8;
    return Le32(kLength) + Le32(subType);
}

inline std::string LoginReply(char status)
{
    constexpr std::uint32_t kLength = 8;
    return Le32(kLength) + status + Zeros(3);
}

// A service's packet as a session carries it: after the length comes a word that the board does not read.
inline std::string Framed(const std::string &packet, const std::string &unread = "????")
{
    return Le32(static_cast<std::uint32_t>(8 + packet.size())) + unread + packet;
}
