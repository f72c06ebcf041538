// SPDX-License-Identifier: MIT
// The slant lines on the panel, as one sees them there.
#include "devices/framebuffer.h"
#include "settings_peer.h"

#include <csignal>
#include <fstream>

using namespace std::chrono_literals;

namespace
{

constexpr std::uint32_t kWhite = 0xFFFFFF;

// Colour of the pixel at x in row y, whose lines have moved to the left by `phase` pixels.
using Rule = std::uint32_t (*)(int x, int y, int phase);

// One pixel in eight is lit, in each row one pixel further to the right.
std::uint32_t ThinLines(int x, int y, int phase)
{
    return (x + phase - y) % 8 == 0 ? kWhite : 0;
}

// The lit pixel's four bytes are two pixels of 16 bits. Everything left of the pattern's first column is
// dark.
std::uint32_t DoubleLines(int x, int y, int phase)
{
    const int right = x + phase - y % 8;
    return right >= 0 && right % 8 <= 1 ? kWhite : 0;
}

// The fourth byte of a lit pixel of 24 bits is the next pixel's first colour.
std::uint32_t LinesWithBlueEdge(int x, int y, int phase)
{
    const int right = x + phase - y % 8;
    return right >= 0 && right % 8 <= 1 ? (right % 8 == 0 ? kWhite : 0x0000FF) : 0;
}

// On a panel of four pixels the second line of a row continues in the row below.
std::uint32_t NarrowLines(int x, int y, int phase)
{
    const int right = x + phase - y % 8;
    return right == 0 || (right == -1 && y % 8 > 0) ? kWhite : 0;
}

class PanelTest : public SettingsTest
{
protected:
    bool Shows(const Rule rule, int phase) const
    {
        const auto picture = board::ReadFramebuffer(board->Root());
        for (unsigned y = 0; picture && y < picture->height; ++y) {
            for (unsigned x = 0; x < picture->width; ++x) {
                if (picture->Pixel(x, y) != rule(static_cast<int>(x), static_cast<int>(y), phase))
                    return false;
            }
        }
        return picture.has_value();
    }
    bool WaitForPhase(const Rule rule, int phase, board::Milliseconds limit = 5s) const
    {
        return board->WaitFor([&] { return Shows(rule, phase); }, limit);
    }
    // Also the bytes after the pixels of a row.
    bool IsDark(unsigned device = 0) const
    {
        return board::ReadFramebuffer(board->Root(), device)->bytes.find_first_not_of('\0') ==
               std::string::npos;
    }
    void Litter(unsigned device = 0) const
    {
        std::fstream file(board->Root().Folder() + "/dev/fb" + std::to_string(device));
        file << std::string(board::ReadFramebuffer(board->Root(), device)->bytes.size(), '\x5A');
    }
    void Toggle() const { EXPECT_TRUE(board->Daemon().Signal(SIGUSR2)); }
    std::size_t MappingsOfThePanel() const
    {
        std::ifstream maps("/proc/" + std::to_string(board->Daemon().Pid()) + "/maps");
        std::size_t count = 0;
        for (std::string line; std::getline(maps, line);)
            count += line.find("/dev/fb") != std::string::npos ? 1 : 0;
        return count;
    }
    // The lines about pixel formats.
    std::string FormatLines() const
    {
        std::string lines;
        for (const std::string &line : board->Record().Log()) {
            if (line.ends_with("frame buffer") || line.ends_with("frame buffers") ||
                line.ends_with("format..."))
                lines += line + "\n";
        }
        return lines;
    }
    // Calls `meanwhile` until the daemon has sent two heartbeats: for two seconds.
    bool WaitForTwoHeartbeats(const std::function<void()> &meanwhile) const
    {
        const std::size_t beats = board->Supervisor().Heartbeats().size();
        return board->WaitFor([&] {
            meanwhile();
            return board->Supervisor().Heartbeats().size() >= beats + 2;
        });
    }
};

} // namespace

TEST_F(PanelTest, NinePhasesWhileAClientIsSilent)
{
    options.screens = {{.width = 52, .height = 35, .bitsPerPixel = 16, .padding = 24}};
    Boot();
    Litter();
    const Peer port = Port();
    Settle(port);
    Toggle();
    EXPECT_TRUE(board->WaitFor([&] { return IsDark(); }));
    EXPECT_TRUE(WaitForTwoHeartbeats([&] { Settle(port); }));
    EXPECT_TRUE(IsDark()) << "nothing is drawn while a client sends";
    board->Forget();
    // Phase 8 is phase 0 with lines at the left edge, too. Phase 0 does not come again.
    const int phases[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 1, 2};
    std::size_t waits = 0;
    for (const int phase : phases) {
        EXPECT_TRUE(board->Record().WaitForLog("select continue.", ++waits));
        EXPECT_TRUE(WaitForPhase(DoubleLines, phase, 700ms)) << "wait " << waits << ", phase " << phase;
    }
    const std::string begun = Command(kSettingGetClock);
    EXPECT_TRUE(port.Send(begun.substr(0, 3)));
    board->Forget();
    EXPECT_TRUE(board->Record().WaitForLog("select continue."));
    EXPECT_TRUE(WaitForPhase(DoubleLines, 3, 700ms)) << "a client in the middle of a packet";
    EXPECT_TRUE(port.Send(begun.substr(3)));
    EXPECT_EQ(port.Take(14).size(), 14U);
    End(port);
    EXPECT_TRUE(WaitForPhase(DoubleLines, 4)) << "without a client again";
}

TEST_F(PanelTest, SignalTurnsItOnAndOff)
{
    options.screens = {{.width = 24, .height = 40}, {.width = 16, .height = 16}, {.bitsPerPixel = 16}};
    Boot();
    for (const unsigned device : {0U, 1U, 2U})
        Litter(device);
    const std::size_t descriptors = SettledDescriptors(*board);
    Toggle();
    EXPECT_TRUE(board->WaitFor([&] { return IsDark(0) && IsDark(1) && IsDark(2); }));
    EXPECT_TRUE(WaitForPhase(ThinLines, 0));
    const auto begin = std::chrono::steady_clock::now();
    for (const int phase : {1, 2, 3, 4, 5, 6, 7, 8, 1})
        EXPECT_TRUE(WaitForPhase(ThinLines, phase)) << phase;
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 8s) << "once a second";
    EXPECT_EQ(MappingsOfThePanel(), 1U);
    EXPECT_EQ(board->Daemon().OpenDescriptors(), descriptors + 1);

    Toggle();
    EXPECT_TRUE(board->WaitFor([&] { return IsDark(); }));
    EXPECT_TRUE(WaitForTwoHeartbeats([&] { EXPECT_TRUE(IsDark()); }));
    for (std::size_t count = 3; count <= 22; ++count) {
        Toggle();
        // Each signal is handled before the next: two pending ones would be one.
        ASSERT_TRUE(board->Record().WaitForLog("sig_handle be call", count));
    }
    EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == descriptors; }));
    EXPECT_EQ(MappingsOfThePanel(), 0U);

    Toggle();
    EXPECT_TRUE(WaitForPhase(ThinLines, 0)) << "starts again with phase 0";
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog("sig_handle be call", 24));
    EXPECT_TRUE(WaitForPhase(ThinLines, 1));
}

TEST_F(PanelTest, EveryDepth)
{
    const std::string asks = "Error, no support currently for 8 bpp frame buffers\n"
                             "Trying to change pixel format...\n";
    const std::string no32 = "Error, failed to switch to a 32 bpp 8,8,8 frame buffer\n";
    const std::string no16 = "Error, failed to switch to a 16 bpp 5,6,5 frame buffer\n";
    struct Row {
        board::ScreenMode screen;
        Rule rule;       // nullptr: the pattern stays off
        std::string log; // lines about the format
    };
    const Row rows[] = {
        {{.width = 33, .height = 18, .bitsPerPixel = 16, .padding = 62, .bgr = true}, DoubleLines, ""},
        {{.width = 33, .height = 5, .bitsPerPixel = 24, .padding = 1}, LinesWithBlueEdge, ""},
        {{.width = 4, .height = 24}, NarrowLines, ""},
        {{.width = 40, .height = 24, .bitsPerPixel = 8, .padding = 4},
         ThinLines,
         asks + "Switched to a 32 bpp 8,8,8 frame buffer\n"},
        {{.width = 40, .height = 24, .bitsPerPixel = 8, .refuses32 = true},
         DoubleLines,
         asks + no32 + "Switched to a 16 bpp 5,6,5 frame buffer\n"},
        {{.bitsPerPixel = 8, .refuses32 = true, .refuses16 = true}, nullptr, asks + no32 + no16},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        options.screens = {row.screen};
        board.reset();
        Boot();
        board->Forget();
        Litter();
        Toggle();
        EXPECT_TRUE(board->Record().WaitForLog("sig_handle be call"));
        EXPECT_TRUE(board->WaitFor([&] { return FormatLines() == row.log; })) << FormatLines();
        if (row.rule == nullptr) {
            EXPECT_EQ(MappingsOfThePanel(), 0U);
            EXPECT_FALSE(IsDark());
            continue;
        }
        EXPECT_TRUE(WaitForPhase(row.rule, 0));
        EXPECT_TRUE(WaitForPhase(row.rule, 1));
        Toggle();
        EXPECT_TRUE(board->WaitFor([&] { return IsDark(); }));
    }
}

TEST_F(PanelTest, WithoutAPanel)
{
    options.startDaemon = false;
    Boot();
    board->Daemon().Start();
    const std::size_t descriptors = SettledDescriptors(*board);
    for (std::size_t count = 1; count <= 3; ++count) {
        Toggle();
        EXPECT_TRUE(board->Record().WaitForLog("Error opening /dev/fb0: No such file or directory", count));
    }
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog("sig_handle be call", 4));
    EXPECT_EQ(Count("Error"), 3U) << "one line each time, none for the other screens";
    EXPECT_EQ(board->Daemon().OpenDescriptors(), descriptors);
}

TEST_F(PanelTest, AnotherScreenThatDoesNotOpenIsSkipped)
{
    options.screens = {{.width = 16, .height = 16}};
    Boot();
    board->Root().MakeFolder("/dev/fb1");
    Toggle();
    EXPECT_TRUE(board->Record().WaitForLog("Error opening /dev/fb0: Is a directory"));
    EXPECT_TRUE(WaitForPhase(ThinLines, 0));
    EXPECT_EQ(Count("Error"), 1U);
}
