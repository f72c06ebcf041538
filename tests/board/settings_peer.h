// SPDX-License-Identifier: MIT
// tests/board/settings_peer.h: settings packets typed by hand, and a board with a setting service that is
// asked for them.
#pragma once

#include "board_test.h"
#include "peer.h"

#include <utility>
#include <vector>

inline std::string Packet(char type, const std::string &payload)
{
    return std::string{static_cast<char>(payload.size() + 1), type} + payload;
}

inline std::string Command(std::uint32_t code, const std::string &argument = "")
{
    return Packet(0, Le32(code) + argument);
}

inline std::string FpgaPacket(std::uint8_t command, std::uint32_t value)
{
    return Packet(1, std::string("\xA5") + static_cast<char>(command) + Le32(value) + "\xA5");
}

// As a session of port 8870 carries it.
inline std::string Framed(const std::string &packet)
{
    return Le32(static_cast<std::uint32_t>(8 + packet.size())) + "????" + packet;
}

inline std::string Acknowledged(std::uint32_t code)
{
    return std::string("\5\0", 2) + Le32(code);
}

using Pairs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

inline std::string Records(const Pairs &pairs)
{
    std::string bytes;
    for (const auto &[id, value] : pairs)
        bytes += Le32(id) + Le32(value);
    return bytes;
}

inline std::string SettingFile(const Pairs &pairs)
{
    const auto count = static_cast<std::uint32_t>(pairs.size());
    return std::string("\x6D\x48") + Le32(count).substr(0, 2) + Le32(8 * count) + Records(pairs);
}

class SettingsTest : public BoardTest
{
protected:
    static constexpr const char *kWorking = "/home/root/plexa_data/setting.ss";
    static constexpr const char *kBoot = "/boot/setting.ss";
    static constexpr const char *kStaged = "/home/root/setting.ss.bak";

    // A panel of 128 x 64 that gets along with luminance 18, so that 20 is too much.
    static Pairs Panel()
    {
        return {{18, 9},   {22, 1}, {4, 16}, {3, 128 + 64 * 65536},
                {12, 0},   {9, 20}, {11, 7}, {14, 8},
                {254, 20}, {26, 0}, {37, 1}, {40, 0},
                {70, 0},   {74, 0}, {255, 5}};
    }

    // The service listens again a moment after its last client.
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
        EXPECT_TRUE(peer.Send(Le32(8) + Le32(1)));
        EXPECT_EQ(peer.Take(8), Le32(8) + Le32(1));
        return peer;
    }
    // What was sent before has been handled when the board tells the time.
    static void Settle(const Peer &port)
    {
        EXPECT_TRUE(port.Send(Command(15)));
        EXPECT_EQ(port.Take(14).substr(0, 6), std::string("\15\0", 2) + Le32(15));
    }
    static void End(const Peer &port)
    {
        EXPECT_TRUE(port.Send(Command(0)));
        EXPECT_TRUE(port.Ended());
    }
    // The frames so far as {command, value}.
    Pairs Frames() const
    {
        Pairs frames;
        for (const board::Frame &frame : board->Fpga().Frames())
            frames.emplace_back(frame.command, frame.value);
        return frames;
    }
    // What has gone out on the serial line reaches the FPGA a moment later.
    void ExpectFrames(const Pairs &expected) const
    {
        EXPECT_TRUE(board->Fpga().WaitForFrames(expected.size()));
        EXPECT_EQ(Frames(), expected);
    }
    // The boot copy is written by the schedule's first look, some time after the board listens.
    bool WaitForBootCopy() const
    {
        return board->WaitFor([&] {
            const auto copy = board->Root().TryRead(kBoot);
            return copy && copy->size() == board->Root().Read(kWorking).size();
        });
    }
    // A board with the settings of Panel(), when all of its start has been seen and forgotten.
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
        Pairs frames = {{1, 0}, {2, 0}};
        frames.insert(frames.end(), pairs.begin(), pairs.end());
        frames.emplace_back(2, 1);
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
