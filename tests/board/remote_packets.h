// SPDX-License-Identifier: MIT
// tests/board/remote_packets.h: packets between the board and a remote management server, typed by hand.
#pragma once

#include "peer.h"

constexpr char kRemoteGreeting = 3; // the first byte that a board sends

enum RemoteCommand : std::uint32_t {
    kRemoteLogin = 2,
    kRemoteDeviceParam = 9,
    kRemoteLoginAnswer = 10,
    kRemoteHeartbeat = 11,
    kRemoteSession = 13, // carries an inner packet
};

// Codes of inner packets: requests of the server, and what the board replies.
enum RemoteInner : std::uint32_t {
    kRemoteLock = 14,
    kRemoteLockReply = 15,
    kRemoteMd5 = 16,
    kRemoteMd5Reply = 17,
    kRemoteClean = 18,
    kRemoteCleanReply = 19,
    kRemoteListFiles = 20,
    kRemoteFilesReply = 21,
    kRemoteTable = 22,
    kRemoteTableReply = 23,
    kRemoteCreate = 24,
    kRemoteClose = 25,
    kRemoteRemove = 28,
    kRemoteRemoveReply = 27,
    kRemoteCloseReply = 29,
    kRemoteOpenReply = 30, // to kRemoteCreate and to kRemoteResume
    kRemoteUnlock = 31,
    kRemoteData = 32,
    kRemoteDataReply = 33,
    kRemoteFinish = 34, // its reply has the same code
    kRemoteResume = 35,
    kRemoteListVideos = 36,
    kRemoteVideosReply = 37,
    kRemoteRemoveNotVideo = 38,
    kRemoteNotVideoReply = 39,
};

enum RemoteResult : std::uint32_t { kSuccess = 1, kFailure = 2 };

enum LockResult : std::uint32_t { kLocked = 1, kLockedByAnother = 2 };

constexpr std::size_t kRemoteLoginSize = 43; // with the greeting
constexpr std::size_t kDeviceParamSize = 522;
constexpr std::size_t kRemoteHeaderSize = 22; // of both packets: length, code, identifier
constexpr std::size_t kRemoteNameSize = 255;

constexpr std::size_t kDataAt = 44; // of an inner packet, from the outer one's start
constexpr std::size_t kLockReplySize = kDataAt + 4;
constexpr std::size_t kResultReplySize = kDataAt + 4;
constexpr std::size_t kChunkReplySize = kDataAt + 8;
constexpr std::size_t kMd5ReplySize = kDataAt + kRemoteNameSize + 16;

inline std::string RemoteLogin(const std::string &user, const std::string &id)
{
    constexpr std::uint32_t kLength = 42;
    return kRemoteGreeting + Le32(kLength) + Le32(kRemoteLogin) + Field(user, 20) + Field(id, 14);
}

// Status 0 accepts the login.
inline std::string RemoteLoginAnswer(std::uint32_t status)
{
    constexpr std::uint32_t kLength = 12;
    return Le32(kLength) + Le32(kRemoteLoginAnswer) + Le32(status);
}

inline std::string RemoteHeartbeat()
{
    constexpr std::uint32_t kLength = 12;
    return Le32(kLength) + Le32(kRemoteHeartbeat) + Le32(0);
}

// `id` has 14 bytes.
inline std::string RemotePacket(std::size_t length, std::uint32_t code, const std::string &id,
                                const std::string &data)
{
    return Le32(static_cast<std::uint32_t>(length)) + Le32(code) + id + data;
}

// An inner packet with that length, in its outer packet.
inline std::string SessionPacket(std::size_t innerLength, std::uint32_t code, const std::string &id,
                                 const std::string &data)
{
    const std::string inner = RemotePacket(innerLength, code, id, data);
    return RemotePacket(kRemoteHeaderSize + inner.size(), kRemoteSession, id, inner);
}

// Identifier of the board that the packets below are sent to and come from.
inline const std::string kRemoteId("K3-0012345678\0", 14);

inline std::string Request(std::uint32_t code, const std::string &data = "")
{
    return SessionPacket(kRemoteHeaderSize + data.size(), code, kRemoteId, data);
}

inline std::string Named(std::uint32_t code, const std::string &name)
{
    return Request(code, Field(name, kRemoteNameSize));
}

inline std::string Chunk(const std::string &data)
{
    const std::string unread = "unus";
    return Request(kRemoteData, Le32(static_cast<std::uint32_t>(data.size())) + unread + data);
}

// A reply with its inner length, which is not the data's own in all of them.
inline std::string Reply(std::size_t innerLength, std::uint32_t code, const std::string &data)
{
    return SessionPacket(innerLength, code, kRemoteId, data);
}

inline std::string NameReply(std::uint32_t code, const std::string &name, std::uint32_t result)
{
    return Reply(kRemoteHeaderSize + kRemoteNameSize + 4, code, Field(name, kRemoteNameSize) + Le32(result));
}

inline std::string ResultReply(std::uint32_t code, std::uint32_t result)
{
    return Reply(kRemoteHeaderSize + 4, code, Le32(result));
}

inline std::string LockReply(std::uint32_t result)
{
    return Reply(4, kRemoteLockReply, Le32(result));
}

inline std::string ChunkReply(std::uint32_t result)
{
    return Reply(kRemoteHeaderSize + 8, kRemoteDataReply, Zeros(4) + Le32(result));
}

inline std::string Md5Reply(const std::string &name, const std::string &digest)
{
    return Reply(kRemoteHeaderSize + kRemoteNameSize + 16, kRemoteMd5Reply,
                 Field(name, kRemoteNameSize) + Field(digest, 16));
}

inline std::string ListReply(std::uint32_t code, const std::string &names)
{
    return Reply(kRemoteHeaderSize + names.size(), code, names);
}

inline std::string TableReply(const std::string &name, const std::string &table)
{
    return Reply(kRemoteHeaderSize + kRemoteNameSize + table.size() + 1, kRemoteTableReply,
                 Field(name, kRemoteNameSize) + table + Zeros(1));
}
