// SPDX-License-Identifier: MIT
// tests/board/settings_peer.h: settings packets typed by hand, and a board with a setting service that is
// asked for them.
#pragma once

#include "board_test.h"
#include "peer.h"
#include "session_packets.h"
#include "setting_codes.h"

#include <algorithm>
#include <utility>
#include <vector>

inline std::string Packet(char type, const std::string &payload)
{
    const auto length = static_cast<char>(1 + payload.size()); // of what follows it: type and payload
    return std::string{length, type} + payload;
}

inline std::string Command(std::uint32_t code, const std::string &argument = "")
{
    return Packet(kPacketCommand, Le32(code) + argument);
}

// A piece of a luminance file or boot picture; kChunkEnd has no data.
inline std::string Chunk(std::uint32_t code, char kind, const std::string &data = "")
{
    return Command(code, kind + data);
}

inline std::string FpgaPacket(std::uint8_t command, std::uint32_t value)
{
    const std::string mark = "\xA5";
    return Packet(kPacketFrame, mark + static_cast<char>(command) + Le32(value) + mark);
}

// What the service answers: `length` counts the bytes that follow it.
inline std::string Answer(char length, std::uint32_t code, const std::string &fields = "")
{
    return std::string{length, kPacketCommand} + Le32(code) + fields;
}

inline std::string Acknowledged(std::uint32_t code)
{
    return Answer(5, code);
}

// The answer to kChunkEnd.
inline std::string TransferEnded(std::uint32_t code, std::uint32_t status)
{
    return Answer(9, code, Le32(status));
}

// {id, value} of records of the settings file, {command, value} of frames.
using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

inline std::string Records(const Pairs &pairs)
{
    std::string bytes;
    for (const auto &[id, value] : pairs)
        bytes += Le32(id) + Le32(value);
    return bytes;
}

inline void Append(Pairs *pairs, const Pairs &more)
{
    pairs->insert(pairs->end(), more.begin(), more.end());
}

// Changes the first record with that id.
inline void SetValue(Pairs *pairs, std::uint32_t id, std::uint32_t value)
{
    const auto record = std::ranges::find(*pairs, id, &Pairs::value_type::first);
    ASSERT_NE(record, pairs->end());
    record->second = value;
}

// The frames for the brightness of the three colours.
inline Pairs Colours(std::uint32_t value)
{
    return {{kIdRed, value}, {kIdGreen, value}, {kIdBlue, value}};
}

inline std::string SettingFile(const Pairs &pairs)
{
    const std::string headId = "\x6D\x48";
    const auto dataLength = static_cast<std::uint32_t>(8 * pairs.size());
    return headId + Le16(pairs.size()) + Le32(dataLength) + Records(pairs);
}

// Fields of the reboot schedule.
struct ScheduleFields {
    char enabled = 0;
    int minuteOffset = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    std::uint32_t mode = 0; // 0: every `days` days, 1: on weekdays
    std::uint32_t days = 0;
    std::uint32_t weekdayMask = 0;
    char unread = 0; // at three places
};

inline std::string Schedule(const ScheduleFields &fields)
{
    const auto byte = [](int value) { return std::string(1, static_cast<char>(value)); };
    return byte(fields.enabled) + std::string(2, fields.unread) +
           Le16(static_cast<std::uint16_t>(fields.minuteOffset)) + byte(fields.hour) + byte(fields.minute) +
           byte(fields.second) + fields.unread + Le32(fields.mode) + Le32(fields.days) +
           Le32(fields.weekdayMask);
}

class SettingsTest : public BoardTest
{
protected:
    static constexpr const char *kWorking = "/home/root/plexa_data/setting.ss";
    static constexpr const char *kBoot = "/boot/setting.ss";
    static constexpr const char *kStaged = "/home/root/setting.ss.bak";

    // A panel of 128 x 64 whose highest luminance is 18, so that 20 is too much.
    static Pairs Panel()
    {
        return {{kIdGrayBits, 9},      {kIdModelType, 1},
                {kIdScan, 16},         {kIdScreenSize, ScreenSize(128, 64)},
                {kIdPulseIndex, 0},    {kIdLuminance, 20},
                {kIdCleared, 7},       {kIdScanRows, 8},
                {kIdMaxLuminance, 20}, {kIdPulseBank, 0},
                {kIdW2HFactor, 1},     {kIdMbiClock, 0},
                {kIdWidthSelect, 0},   {kIdGap, 0},
                {kIdUnknown, 5}};
    }

    // The service listens again a moment after its last client has left.
    Peer Port()
    {
        Peer peer;
        EXPECT_TRUE(board->WaitFor([&] {
            peer = Peer::Connect(board->Network().BoardAddress(), 8879);
            return peer.Connected();
        }));
        return peer;
    }
    Peer Session()
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Login(kSettings)));
        EXPECT_EQ(peer.Take(8), LoginReply(kLoginAccepted));
        return peer;
    }
    // The board has handled what was sent before when it answers with its time.
    static void Settle(const Peer &port)
    {
        EXPECT_TRUE(port.Send(Command(kSettingGetClock)));
        EXPECT_EQ(port.Take(14).substr(0, 6), Answer(13, kSettingGetClock));
    }
    static void End(const Peer &port)
    {
        EXPECT_TRUE(port.Send(Command(kSettingEnd)));
        EXPECT_TRUE(port.Ended());
    }
    Pairs Frames() const
    {
        Pairs frames;
        for (const board::Frame &frame : board->Fpga().Frames())
            frames.emplace_back(frame.command, frame.value);
        return frames;
    }
    // Frames reach the FPGA a moment after they are written.
    void ExpectFrames(const Pairs &expected) const
    {
        EXPECT_TRUE(board->Fpga().WaitForFrames(expected.size()));
        EXPECT_EQ(Frames(), expected);
    }
    // The board writes the boot copy some time after it listens, when it first reads its reboot schedule.
    bool WaitForBootCopy() const
    {
        return board->WaitFor([&] {
            const auto copy = board->Root().TryRead(kBoot);
            return copy && copy->size() == board->Root().Read(kWorking).size();
        });
    }
    // A board with the settings of Panel(); what it did at its start is over and no longer recorded.
    void BootAndForget()
    {
        options.files[kWorking] = SettingFile(Panel());
        Boot();
        EXPECT_TRUE(board->Fpga().WaitForFrames(Transfer(Panel()).size()));
        EXPECT_TRUE(WaitForBootCopy());
        EXPECT_TRUE(board->Record().WaitForCommand("sync"));
        board->Forget();
    }
    // The frames that sending a settings file takes.
    static Pairs Transfer(const Pairs &pairs)
    {
        Pairs frames = {{kFrameTransfer, 0}, {kFrameBlock, 0}};
        Append(&frames, pairs);
        frames.emplace_back(kFrameBlock, 1);
        return frames;
    }
    std::size_t Count(const std::string &line) const
    {
        std::size_t count = 0;
        for (const std::string &one : board->Record().Log())
            count += one.find(line) != std::string::npos ? 1 : 0;
        return count;
    }
};
