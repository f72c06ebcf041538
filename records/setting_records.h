// SPDX-License-Identifier: MIT
// records/setting_records.h: packets of the setting service, the settings file and the reboot schedule
// (docs/protocols.md, "Settings" and "Files").
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr std::uint16_t kSettingPort = 8879;
constexpr std::size_t kSettingPacketSize = 1024; // the service's packet buffer
constexpr std::size_t kMaxPacketBytes = 256;     // length byte and the 255 bytes that it can announce

enum SettingPacketType : std::uint8_t {
    kPacketCommand = 0,
    kPacketFrame = 1,
    kPacketData = 2,
};

// Starts every packet, both ways.
struct SettingHeader {
    U8 length; // bytes that follow this one
    U8 type;   // SettingPacketType
};
static_assert(sizeof(SettingHeader) == 2);
static_assert(offsetof(SettingHeader, length) == 0);
static_assert(offsetof(SettingHeader, type) == 1);

enum SettingCode : std::uint32_t {
    kSettingEnd = 0,
    kSettingStart = 1,
    kSettingRtsOpen = 2,
    kSettingRtsClose = 3,
    kSettingReadRefresh = 4,
    kSettingSave = 5,
    kSettingCopyOver = 6,
    kSettingNotSave = 7,
    kSettingReadScreen = 8,
    kSettingReadFile = 9,
    kSettingSendToFpga = 10,
    kSettingName = 11,
    kSettingSetClock = 12,
    kSettingBrightness = 13,
    kSettingLuminanceFile = 14,
    kSettingGetClock = 15,
    kSettingDebug = 16,
    kSettingBootScreen = 17,
    kSettingClearBootScreen = 18,
    kSettingIdentity = 19,
    kSettingUnused = 20,
    kSettingSlantLine = 21,
    kSettingProbePlayer = 22,
    kSettingTakePlayerCopy = 23,
    kSettingReadLuminance = 24,
    kSettingSmartOff = 25,
    kSettingSmartOn = 26,
    kSettingReadPloy = 27,
    kSettingWritePloy = 28,
};

// A command without its argument; also the acknowledgement.
struct SettingCommand {
    SettingHeader header; // length 5 in an acknowledgement
    U32 code;             // SettingCode
};
static_assert(sizeof(SettingCommand) == 6);
static_assert(offsetof(SettingCommand, header) == 0);
static_assert(offsetof(SettingCommand, code) == 2);

// Ends a file transfer.
struct ChunkResult {
    SettingCommand command; // length 9
    U32 status;             // 1 stored, 0 no file was open
};
static_assert(sizeof(ChunkResult) == 10);
static_assert(offsetof(ChunkResult, command) == 0);
static_assert(offsetof(ChunkResult, status) == 6);

// The time as it is read and as it is set.
struct SettingTime {
    SettingCommand command; // length 13
    I64 milliseconds;       // since the epoch
};
static_assert(sizeof(SettingTime) == 14);
static_assert(offsetof(SettingTime, command) == 0);
static_assert(offsetof(SettingTime, milliseconds) == 6);

// Sub-commands of the two file transfers, in the byte after the code.
enum ChunkCommand : std::uint8_t {
    kChunkData = 0,
    kChunkEnd = 1,
};

// One record of the settings file, and one slot of a parameter list.
struct SettingRecord {
    U32 id;
    U32 value;
};
static_assert(sizeof(SettingRecord) == 8);
static_assert(offsetof(SettingRecord, id) == 0);
static_assert(offsetof(SettingRecord, value) == 4);

enum SettingId : std::uint32_t {
    kIdScreenSize = 3, // width in the low, height in the high 16 bits
    kIdScan = 4,
    kIdLuminance = 9, // never above kIdMaxLuminance
    kIdCleared = 11,  // 0 in the boot copy
    kIdPulseIndex = 12,
    kIdHeight = 14,
    kIdGrayBits = 18, // number of bit planes less one
    kIdModelType = 22,
    kIdPulseBank = 26,
    kIdBrightnessRed = 28, // frames only; 29 and 30 are the other two colours
    kIdW2HFactor = 37,
    kIdMbiClock = 40,
    kIdWidthSelect = 70,
    kIdGap = 74,
    kIdBrightnessPercent = 253, // lists only
    kIdMaxLuminance = 254,      // as a frame: brightness in percent
};

// Starts the settings file.
struct SettingFileHeader {
    U16 headId;     // kSettingHeadId
    U16 count;      // records that follow, not 0
    U32 dataLength; // count * 8
};
static_assert(sizeof(SettingFileHeader) == 8);
static_assert(offsetof(SettingFileHeader, headId) == 0);
static_assert(offsetof(SettingFileHeader, count) == 2);
static_assert(offsetof(SettingFileHeader, dataLength) == 4);

constexpr std::uint16_t kSettingHeadId = 18541;

constexpr std::size_t kRefreshListSlots = 6;  // the last one stays empty
constexpr std::size_t kScreenListSlots = 10;  // the last one is the brightness
constexpr std::uint8_t kEmptySlotByte = 0xFF; // of a slot that holds nothing

// The reboot schedule, as a file and as a packet's argument.
struct RebootPloy {
    U8 enabled;
    U8 unread1[2];
    I16 minuteOffset; // added to the clock first
    U8 hour;
    U8 minute;
    U8 second;
    U8 unread2;
    U32 mode;        // 0: every `days` days, else weekdays
    U32 days;        // 1 to 62
    U32 weekdayMask; // bit 1 Monday to bit 7 Sunday
};
static_assert(sizeof(RebootPloy) == 21);
static_assert(offsetof(RebootPloy, enabled) == 0);
static_assert(offsetof(RebootPloy, unread1) == 1);
static_assert(offsetof(RebootPloy, minuteOffset) == 3);
static_assert(offsetof(RebootPloy, hour) == 5);
static_assert(offsetof(RebootPloy, minute) == 6);
static_assert(offsetof(RebootPloy, second) == 7);
static_assert(offsetof(RebootPloy, unread2) == 8);
static_assert(offsetof(RebootPloy, mode) == 9);
static_assert(offsetof(RebootPloy, days) == 13);
static_assert(offsetof(RebootPloy, weekdayMask) == 17);

// Answer to kSettingReadPloy.
struct RebootPloyReply {
    SettingCommand command; // length 26
    RebootPloy ploy;        // zeros without a schedule
};
static_assert(sizeof(RebootPloyReply) == 27);
static_assert(offsetof(RebootPloyReply, command) == 0);
static_assert(offsetof(RebootPloyReply, ploy) == 6);

} // namespace wire
