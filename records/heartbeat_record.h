// SPDX-License-Identifier: MIT
// records/heartbeat_record.h: what the daemon sends to the supervisor beside it (docs/protocols.md,
// "Heartbeat").
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr char kSupervisorAddress[] = "127.0.0.1";
constexpr std::uint16_t kSupervisorPort = 6666;

struct HeartbeatPacket {
    char text[6]; // without a terminator
};
static_assert(sizeof(HeartbeatPacket) == 6);
static_assert(offsetof(HeartbeatPacket, text) == 0);

constexpr HeartbeatPacket kHeartbeat = {{'s', 'e', 'r', 'v', 'e', 'r'}};

} // namespace wire
