// SPDX-License-Identifier: MIT
// tests/board/firmware_packets.h: packets of the firmware service, typed by hand.
#pragma once

#include "session_packets.h"

enum FirmwareKind : char { kFirmwareCommand = 0, kFirmwareData = 1 };
enum FirmwareCode : char {
    kFirmwareVersion = 0,
    kFirmwareArchive = 1,
    kFirmwareComplete = 2,
    kFirmwareState = 3,
};

constexpr std::size_t kVersionReplySize = 25;
constexpr std::size_t kArchiveReplySize = 273;
constexpr std::size_t kCompleteReplySize = 17;

// Magic number, length of the whole packet and kind, then what belongs to the kind; a reply looks like this.
inline std::string BareFirmwarePacket(char kind, const std::string &tail)
{
    const std::string magic("\x76\x71\0\0", 4);
    return magic + Le32(static_cast<std::uint32_t>(9 + tail.size())) + kind + tail;
}

inline std::string FirmwarePacket(char kind, const std::string &tail)
{
    return Framed(BareFirmwarePacket(kind, tail), Le32(0xDEADBEEF));
}

// The board reads the first byte of the code only.
inline std::string FirmwareCommand(char code, const std::string &fields)
{
    return FirmwarePacket(kFirmwareCommand, code + ("xyz" + fields));
}

inline std::string AskVersion(std::uint32_t type = 1)
{
    return FirmwareCommand(kFirmwareVersion, Le32(type) + Zeros(8));
}

inline std::string AskArchive(std::uint32_t fileSize, std::uint32_t resumeOffset, char unread = '\0')
{
    return FirmwareCommand(kFirmwareArchive, Le32(fileSize) + Le32(resumeOffset) + std::string(252, unread));
}
