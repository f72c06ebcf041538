// SPDX-License-Identifier: MIT
// records/firmware_records.h: packets of the firmware upgrade service (docs/protocols.md, "Firmware").
//
// On a session each of the client's packets follows a FrameHeader; replies have none.
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr std::uint32_t kFirmwareMagic = 0x7176;

enum FirmwareKind : std::uint8_t {
    kFirmwareCommand = 0,
    kFirmwareData = 1, // archive bytes follow the header
};

enum FirmwareCode : std::uint8_t {
    kAskVersionNumber = 0,
    kAskRecvNewVersionFile = 1,
    kAskUpgradeComplete = 2,
    kAskUpgradeState = 3,
};

struct FirmwareHeader {
    U32 magic;
    U32 length; // the whole packet, header included
    U8 kind;
};
static_assert(sizeof(FirmwareHeader) == 9);
static_assert(offsetof(FirmwareHeader, magic) == 0);
static_assert(offsetof(FirmwareHeader, length) == 4);
static_assert(offsetof(FirmwareHeader, kind) == 8);

// Starts every command. Of the code's four bytes the daemon reads the first.
struct FirmwareCommand {
    FirmwareHeader header;
    U8 code;
    U8 unread[3];
};
static_assert(sizeof(FirmwareCommand) == 13);
static_assert(offsetof(FirmwareCommand, header) == 0);
static_assert(offsetof(FirmwareCommand, code) == 9);
static_assert(offsetof(FirmwareCommand, unread) == 10);

struct VersionRequest {
    FirmwareCommand command;
    I32 type; // -1 is refused
    U8 unread[8];
};
static_assert(sizeof(VersionRequest) == 25);
static_assert(offsetof(VersionRequest, command) == 0);
static_assert(offsetof(VersionRequest, type) == 13);
static_assert(offsetof(VersionRequest, unread) == 17);

struct FirmwareFileRequest {
    FirmwareCommand command;
    I32 fileSize;
    I32 resumeOffset;
    U8 unread[252];
};
static_assert(sizeof(FirmwareFileRequest) == 273);
static_assert(offsetof(FirmwareFileRequest, command) == 0);
static_assert(offsetof(FirmwareFileRequest, fileSize) == 13);
static_assert(offsetof(FirmwareFileRequest, resumeOffset) == 17);
static_assert(offsetof(FirmwareFileRequest, unread) == 21);

struct UpgradeCompleteRequest {
    FirmwareCommand command;
    U32 unread;
};
static_assert(sizeof(UpgradeCompleteRequest) == 17);
static_assert(offsetof(UpgradeCompleteRequest, command) == 0);
static_assert(offsetof(UpgradeCompleteRequest, unread) == 13);

// Answers the version number and the upgrade state.
struct VersionReply {
    FirmwareHeader header;
    U32 code;  // 0 for both
    U32 state; // of the last upgrade: 1 success, 0 failure; 0 in a version reply
    I32 plexa; // player version, four numbers in byte order
    I32 fpga;  // FPGA version, three numbers in byte order
};
static_assert(sizeof(VersionReply) == 25);
static_assert(offsetof(VersionReply, header) == 0);
static_assert(offsetof(VersionReply, code) == 9);
static_assert(offsetof(VersionReply, state) == 13);
static_assert(offsetof(VersionReply, plexa) == 17);
static_assert(offsetof(VersionReply, fpga) == 21);

struct FirmwareFileReply {
    FirmwareHeader header;
    U32 code;      // 0
    U32 opened;    // kArchiveOpened, or 0 when the resume offset cannot be reached
    U32 openedToo; // the same value again
    U8 zero[252];
};
constexpr std::uint32_t kArchiveOpened = 0xFFFFFFFF;
static_assert(sizeof(FirmwareFileReply) == 273);
static_assert(offsetof(FirmwareFileReply, header) == 0);
static_assert(offsetof(FirmwareFileReply, code) == 9);
static_assert(offsetof(FirmwareFileReply, opened) == 13);
static_assert(offsetof(FirmwareFileReply, openedToo) == 17);
static_assert(offsetof(FirmwareFileReply, zero) == 21);

struct UpgradeCompleteReply {
    FirmwareHeader header;
    U32 code;   // 2
    U32 result; // 1
};
static_assert(sizeof(UpgradeCompleteReply) == 17);
static_assert(offsetof(UpgradeCompleteReply, header) == 0);
static_assert(offsetof(UpgradeCompleteReply, code) == 9);
static_assert(offsetof(UpgradeCompleteReply, result) == 13);

} // namespace wire
