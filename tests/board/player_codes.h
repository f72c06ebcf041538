// SPDX-License-Identifier: MIT
// tests/board/player_codes.h: codes and bytes of the messages between daemon and player, typed by hand.
#pragma once

#include "peer.h"

enum PlayerCode : std::uint32_t {
    // from the daemon
    kPlayerRecvProgram = 1,
    kPlayerRecvEnd = 2,
    kPlayerLuminanceFile = 3,
    kPlayerSmartSetting = 8,
    kPlayerNetworkError = 9,
    kPlayerSlantLine = 10,
    kPlayerRecvNoFinish = 12,
    // from the player
    kPlayerScreenSize = 4,
    kPlayerBrightness = 5,
    kPlayerUpdateSettingFile = 6,
    kPlayerUsbState = 7,
    kPlayerScreenOnOff = 11,
    kPlayerReboot = 13,
};

constexpr std::uint32_t kPlayerKind = 3;

inline std::string PlayerMessage(std::uint32_t code)
{
    constexpr std::uint32_t kLength = 12;
    return Le32(kLength) + Le32(kPlayerKind) + Le32(code);
}

inline std::string PlayerMessage(std::uint32_t code, std::uint32_t value)
{
    constexpr std::uint32_t kLength = 16;
    return Le32(kLength) + Le32(kPlayerKind) + Le32(code) + Le32(value);
}
