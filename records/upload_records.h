// SPDX-License-Identifier: MIT
// records/upload_records.h: packets of an upload session (docs/protocols.md, "Upload"). A request follows a
// FrameHeader; a reply has none.
#pragma once

#include "records/discovery_records.h"
#include "records/session_records.h"

namespace wire
{

using KProtocolHeader = ProtocolHeader;

constexpr std::uint16_t kUploadDescrite = 0x7466; // "ft"
constexpr std::uint16_t kUploadVersion = 0x0100;

enum UploadType : std::uint8_t {
    kUploadFileData = 0,
    kUploadCommand = 1,
};

enum UploadCode : std::uint8_t {
    kUploadRequest = 3,
    kUploadAnswer = 4,
    kUploadAskReady = 5,
    kUploadAnswerReady = 6,
    kUploadAnswerRetrans = 7,
    kUploadAskTransComplete = 9,
    kUploadAnswerTransComplete = 10,
    kUploadAskRetrans = 11,
    kUploadAskDisconnect = 12,
    kUploadAnswerDisconnect = 13,
    kUploadFileBegin = 21,
    kUploadFileEnd = 22,
    kUploadVideoStart = 23,
    kUploadVideoList = 24,
    kUploadVideoEnd = 25,
    kUploadAnswerVideoList = 26,
    kUploadAnswerUnknown = 27,
};

// Starts every command and every reply but that to an unknown code, which ends after the header.
struct UploadCommandHead {
    KProtocolHeader header;
    U8 code;
};
static_assert(sizeof(UploadCommandHead) == 16);
static_assert(offsetof(UploadCommandHead, header) == 0);
static_assert(offsetof(UploadCommandHead, code) == 15);

// Three zero-terminated texts follow.
struct UploadRequest {
    UploadCommandHead head;
    U8 identifier[16];
    U32 value;
    U8 flag;
    U16 number;
    U32 total;
};
static_assert(sizeof(UploadRequest) == 43);
static_assert(offsetof(UploadRequest, head) == 0);
static_assert(offsetof(UploadRequest, identifier) == 16);
static_assert(offsetof(UploadRequest, value) == 32);
static_assert(offsetof(UploadRequest, flag) == 36);
static_assert(offsetof(UploadRequest, number) == 37);
static_assert(offsetof(UploadRequest, total) == 39);

// The bytes to append to the file follow.
struct UploadDataHead {
    KProtocolHeader header;
    U32 unread;
};
static_assert(sizeof(UploadDataHead) == 19);
static_assert(offsetof(UploadDataHead, header) == 0);
static_assert(offsetof(UploadDataHead, unread) == 15);

struct UploadResultReply {
    UploadCommandHead head;
    U8 result; // 1 accepted
};
static_assert(sizeof(UploadResultReply) == 17);
static_assert(offsetof(UploadResultReply, head) == 0);
static_assert(offsetof(UploadResultReply, result) == 16);

struct UploadRetransReply {
    UploadCommandHead head;
    U8 identifier[16];
    U8 zero;
    U32 received;
};
static_assert(sizeof(UploadRetransReply) == 37);
static_assert(offsetof(UploadRetransReply, head) == 0);
static_assert(offsetof(UploadRetransReply, identifier) == 16);
static_assert(offsetof(UploadRetransReply, zero) == 32);
static_assert(offsetof(UploadRetransReply, received) == 33);

constexpr std::size_t kUploadNameLimit = 200; // longer names are cut
// What one frame holds of the file, and of the name list of a video check.
constexpr std::size_t kUploadDataRoom = kSessionBufferSize - sizeof(FrameHeader) - sizeof(UploadDataHead);
constexpr std::size_t kUploadListRoom = kSessionBufferSize - sizeof(FrameHeader) - sizeof(UploadCommandHead);
// The longest reply is a name list; a name that came without its zero goes back with one.
constexpr std::size_t kUploadReplyRoom = sizeof(UploadCommandHead) + kSessionBufferSize;

} // namespace wire
