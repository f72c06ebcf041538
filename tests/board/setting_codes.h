// SPDX-License-Identifier: MIT
// tests/board/setting_codes.h: numbers of the setting service, of its files and of the FPGA, typed by hand.
#pragma once

#include <cstdint>

enum SettingPacketType : char { kPacketCommand = 0, kPacketFrame = 1, kPacketData = 2 };

enum SettingCommand : std::uint32_t {
    kSettingEnd = 0,
    kSettingStart = 1,
    kSettingKeepFrames = 2,
    kSettingDropFrames = 3,
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
    kSettingReadSchedule = 27,
    kSettingWriteSchedule = 28,
};

// In the first byte of the argument of kSettingLuminanceFile and kSettingBootScreen.
enum ChunkKind : char { kChunkData = 0, kChunkEnd = 1 };

// In the answer to kChunkEnd.
enum ChunkStatus : std::uint32_t { kNotStored = 0, kStored = 1 };

// Frames for the FPGA that are no parameters.
enum FrameCommand : std::uint32_t {
    kFrameTransfer = 1, // begins a transfer of the settings, ends the smart setting
    kFrameBlock = 2,    // value 0: parameters begin, or screen off; 1: they end, or screen on
};

// Parameters: records of the settings file, and frames for the FPGA.
enum SettingId : std::uint32_t {
    kIdScreenSize = 3, // width in the low, height in the high 16 bits
    kIdScan = 4,
    kIdLuminance = 9,
    kIdCleared = 11, // 0 in the boot copy
    kIdPulseIndex = 12,
    kIdScanRows = 14,
    kIdGrayBits = 18,
    kIdModelType = 22,
    kIdPulseBank = 26,
    kIdRed = 28,
    kIdGreen = 29,
    kIdBlue = 30,
    kIdW2HFactor = 37,
    kIdMbiClock = 40,
    kIdWidthSelect = 70,
    kIdGap = 74,
    kIdBrightnessPercent = 253, // in lists only
    kIdMaxLuminance = 254,      // as a frame: brightness in percent
    kIdUnknown = 255,           // listed, but without a name
};

constexpr std::uint32_t ScreenSize(std::uint32_t width, std::uint32_t height)
{
    return width + 65536 * height;
}
