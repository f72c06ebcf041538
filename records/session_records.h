// SPDX-License-Identifier: MIT
// records/session_records.h: framing and login of TCP port 8870 (docs/protocols.md, "Sessions").
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr std::uint16_t kSessionPort = 8870;
constexpr std::size_t kSessionBufferSize = 9216; // the longest packet a session can carry

// The service that a login asks for.
enum SessionType : std::int32_t {
    kSessionUpload = 0,
    kSessionSettings = 1,
    kSessionFirmware = 2,
    kSessionPlayer = 3,
    kSessionModem = 4,
};

struct LoginPacket {
    U32 length; // at least 8; what follows the first 8 bytes is ignored
    U32 subType;
};
static_assert(sizeof(LoginPacket) == 8);
static_assert(offsetof(LoginPacket, length) == 0);
static_assert(offsetof(LoginPacket, subType) == 4);

enum LoginStatus : std::uint8_t {
    kLoginRefused = 0,
    kLoginAccepted = 1,
    kLoginUpgrading = 2, // refused: a firmware upgrade is under way
    kLoginModem = 4,     // accepted, modem session
};

struct LoginReply {
    U32 length; // 8
    U8 status;
    U8 zero[3];
};
static_assert(sizeof(LoginReply) == 8);
static_assert(offsetof(LoginReply, length) == 0);
static_assert(offsetof(LoginReply, status) == 4);
static_assert(offsetof(LoginReply, zero) == 5);

// Starts every packet that a client sends for upload, settings, firmware or modem; the service's own packet
// follows.
struct FrameHeader {
    U32 length; // the whole packet, this word included
    U32 unread;
};
static_assert(sizeof(FrameHeader) == 8);
static_assert(offsetof(FrameHeader, length) == 0);
static_assert(offsetof(FrameHeader, unread) == 4);

} // namespace wire
