// SPDX-License-Identifier: MIT
// records/player_records.h: messages between daemon and player, both ways (docs/protocols.md, "Player").
#pragma once

#include "records/wire_types.h"

namespace wire
{

enum PlayerCode : std::uint32_t {
    SS_CMD_RECV_PROGRAM = 1,
    SS_CMD_RECV_END = 2,
    SS_CMD_LUMINANCE_FILE = 3,
    SS_CMD_SCREEN_SIZE = 4,
    SS_CMD_BRIGHTNESS = 5,
    SS_CMD_UPDATE_SETTING_FILE = 6,
    SS_CMD_USB_STATE = 7,
    SS_CMD_SMART_SETTING = 8,
    SS_CMD_NETWORK_ERROR = 9,
    SS_CMD_SLANT_LINE = 10,
    SS_CMD_SCREEN_ON_OFF = 11,
    SS_CMD_RECV_NO_FINISH = 12,
    SS_CMD_REBOOT = 13,
};

constexpr std::uint32_t kPlayerKind = 3;

struct PlayerMessage {
    U32 length; // 12, or 16 with a value
    U32 kind;   // kPlayerKind from the daemon; not looked at from the player
    U32 code;
};
static_assert(sizeof(PlayerMessage) == 12);
static_assert(offsetof(PlayerMessage, length) == 0);
static_assert(offsetof(PlayerMessage, kind) == 4);
static_assert(offsetof(PlayerMessage, code) == 8);

struct PlayerValueMessage {
    PlayerMessage message;
    U32 value;
};
static_assert(sizeof(PlayerValueMessage) == 16);
static_assert(offsetof(PlayerValueMessage, message) == 0);
static_assert(offsetof(PlayerValueMessage, value) == 12);

} // namespace wire
