// SPDX-License-Identifier: MIT
// records/remote_records.h: packets between a board and its remote management server (docs/protocols.md,
// "Remote server").
#pragma once

#include "records/discovery_records.h"

namespace wire
{

constexpr std::size_t kRemoteBufferSize = 9216; // the longest packet, either way
constexpr std::uint8_t kRemoteGreeting = 3;     // the first byte that a board sends

enum RemoteCommand : std::uint32_t {
    kRemoteLogin = 2,
    kRemoteDeviceParam = 9,
    kRemoteLoginAnswer = 10,
    kRemoteHeartbeat = 11,
    kRemoteSession = 13,
};

// Inner commands of kRemoteSession.
enum RemoteRequest : std::uint32_t {
    kRemoteLock = 14,
    kRemoteGetMd5 = 16,
    kRemoteClean = 18,
    kRemoteListFiles = 20,
    kRemoteGetTable = 22,
    kRemoteCreate = 24,
    kRemoteClose = 25,
    kRemoteRemove = 28,
    kRemoteUnlock = 31,
    kRemoteData = 32,
    kRemoteFinish = 34,
    kRemoteResume = 35,
    kRemoteListVideos = 36,
    kRemoteRemoveNotVideo = 38,
};
enum RemoteReply : std::uint32_t {
    kRemoteLockReply = 15,
    kRemoteMd5Reply = 17,
    kRemoteCleanReply = 19,
    kRemoteFilesReply = 21,
    kRemoteTableReply = 23,
    kRemoteRemoveReply = 27,
    kRemoteCloseReply = 29,
    kRemoteOpenReply = 30, // to kRemoteCreate and to kRemoteResume
    kRemoteDataReply = 33,
    kRemoteFinishReply = 34,
    kRemoteVideosReply = 37,
    kRemoteNotVideoReply = 39,
};
enum RemoteResult : std::uint32_t { kRemoteSuccess = 1, kRemoteFailure = 2 };

struct RemotePrefix {
    U32 length; // the whole packet
    U32 command;
};
static_assert(sizeof(RemotePrefix) == 8);
static_assert(offsetof(RemotePrefix, length) == 0);
static_assert(offsetof(RemotePrefix, command) == 4);

// Login answer (a status, 0 accepted) and heartbeat (0).
struct RemoteWord {
    RemotePrefix prefix;
    U32 value;
};
static_assert(sizeof(RemoteWord) == 12);
static_assert(offsetof(RemoteWord, prefix) == 0);
static_assert(offsetof(RemoteWord, value) == 8);

struct RemoteLoginPacket {
    RemotePrefix prefix;
    char username[20]; // zero-padded, but not terminated when it fills the field
    char id[kDeviceIdSize];
};
static_assert(sizeof(RemoteLoginPacket) == 42);
static_assert(offsetof(RemoteLoginPacket, prefix) == 0);
static_assert(offsetof(RemoteLoginPacket, username) == 8);
static_assert(offsetof(RemoteLoginPacket, id) == 28);

struct RemoteHeader {
    RemotePrefix prefix;
    char id[kDeviceIdSize];
};
static_assert(sizeof(RemoteHeader) == 22);
static_assert(offsetof(RemoteHeader, prefix) == 0);
static_assert(offsetof(RemoteHeader, id) == 8);

// What follows the header of the device parameters. All that is not named is zero.
struct RemoteDeviceParam {
    U8 zero[4];
    U16 recordLength; // 409, the length of a search reply
    U8 zeroHeader[9];
    KAnswerIpAddress answer;
    U8 zeroTail[91];
};
static_assert(sizeof(RemoteDeviceParam) == 500);
static_assert(offsetof(RemoteDeviceParam, zero) == 0);
static_assert(offsetof(RemoteDeviceParam, recordLength) == 4);
static_assert(offsetof(RemoteDeviceParam, zeroHeader) == 6);
static_assert(offsetof(RemoteDeviceParam, answer) == 15);
static_assert(offsetof(RemoteDeviceParam, zeroTail) == 409);

struct RemoteDeviceParamPacket {
    RemoteHeader header;
    RemoteDeviceParam param;
};
static_assert(sizeof(RemoteDeviceParamPacket) == 522);
static_assert(offsetof(RemoteDeviceParamPacket, header) == 0);
static_assert(offsetof(RemoteDeviceParamPacket, param) == 22);

// Starts every packet of a remote session. The inner length counts from the inner header.
struct RemoteSessionHeader {
    RemoteHeader outer;
    RemoteHeader inner;
};
static_assert(sizeof(RemoteSessionHeader) == 44);
static_assert(offsetof(RemoteSessionHeader, outer) == 0);
static_assert(offsetof(RemoteSessionHeader, inner) == 22);

constexpr std::size_t kRemoteNameSize = 255;

struct RemoteNamePacket {
    RemoteSessionHeader header;
    char name[kRemoteNameSize]; // ends at its first zero byte
};
static_assert(sizeof(RemoteNamePacket) == 299);
static_assert(offsetof(RemoteNamePacket, header) == 0);
static_assert(offsetof(RemoteNamePacket, name) == 44);

struct RemoteNameReply {
    RemoteNamePacket named;
    U32 result; // RemoteResult; in a close reply the CRC
};
static_assert(sizeof(RemoteNameReply) == 303);
static_assert(offsetof(RemoteNameReply, named) == 0);
static_assert(offsetof(RemoteNameReply, result) == 299);

struct RemoteMd5Reply {
    RemoteNamePacket named;
    char digest[16]; // hexadecimal text of the first 8 bytes; zeros when the file cannot be opened
};
static_assert(sizeof(RemoteMd5Reply) == 315);
static_assert(offsetof(RemoteMd5Reply, named) == 0);
static_assert(offsetof(RemoteMd5Reply, digest) == 299);

struct RemoteResultReply {
    RemoteSessionHeader header;
    U32 result;
};
static_assert(sizeof(RemoteResultReply) == 48);
static_assert(offsetof(RemoteResultReply, header) == 0);
static_assert(offsetof(RemoteResultReply, result) == 44);

struct RemoteChunkRequest {
    RemoteSessionHeader header;
    U32 size; // bytes of data that follow
    U32 unread;
};
static_assert(sizeof(RemoteChunkRequest) == 52);
static_assert(offsetof(RemoteChunkRequest, header) == 0);
static_assert(offsetof(RemoteChunkRequest, size) == 44);
static_assert(offsetof(RemoteChunkRequest, unread) == 48);

struct RemoteChunkReply {
    RemoteSessionHeader header;
    U32 zero;
    U32 result;
};
static_assert(sizeof(RemoteChunkReply) == 52);
static_assert(offsetof(RemoteChunkReply, header) == 0);
static_assert(offsetof(RemoteChunkReply, zero) == 44);
static_assert(offsetof(RemoteChunkReply, result) == 48);

// While a board receives a file, its reception table stands beside it: the file's name with this suffix, one
// byte for each chunk that is stored.
constexpr char kTableSuffix[] = ".tarvo.bak";
constexpr std::size_t kMaxTablePiece = 8916; // bytes of a reception table in one reply

} // namespace wire
