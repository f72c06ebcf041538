// SPDX-License-Identifier: MIT
// The virtual board itself, which the other tests rely on.
#include "board_test.h"
#include "common/unique_fd.h"
#include "devices/framebuffer.h"
#include "machine/pc_side.h"
#include "player_codes.h"
#include "session_packets.h"
#include "setting_codes.h"

#include <fmt/core.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fb.h>
#include <netinet/in.h>
#include <png.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

using namespace std::chrono_literals;
using ledboard::UniqueFd;
namespace fs = std::filesystem;

namespace
{

std::string ReadText(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

UniqueFd ConnectTo(const std::string &address, std::uint16_t port)
{
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in peer = At(address, port);
    EXPECT_EQ(connect(fd.Get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer), 0);
    return fd;
}

// Whether discovery answers a broadcast from a PC that does not know the board.
bool AnswersBroadcast()
{
    const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int one = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    const timeval limit{2, 0};
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const sockaddr_in everybody = At("255.255.255.255", 8878);
    const char request[30] = "ft";
    if (sendto(fd.Get(), request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&everybody),
               sizeof everybody) != static_cast<ssize_t>(sizeof request))
        return false;
    char reply[1500];
    return recv(fd.Get(), reply, sizeof reply, 0) == 409;
}

class VirtualBoardWithDaemon : public BoardTest
{
};

class VirtualBoardAlone : public BoardTest
{
protected:
    void SetUp() override { options.startDaemon = false; }
};

} // namespace

TEST_F(VirtualBoardWithDaemon, BootsWithinASecondAndListens)
{
    // The best of three: other programs may use the processor.
    auto fastest = std::chrono::steady_clock::duration::max();
    for (int boot = 0; boot < 3 && fastest >= 1s; ++boot) {
        board.reset();
        const auto begin = std::chrono::steady_clock::now();
        Boot();
        fastest = std::min(fastest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(fastest, 1s);
    EXPECT_TRUE(board->Daemon().Listens());
    EXPECT_TRUE(board->Player().LoggedIn());
    EXPECT_TRUE(AnswersBroadcast());
    EXPECT_EQ(fs::read_symlink("/proc/" + std::to_string(board->Daemon().Pid()) + "/cwd").filename(), "root");
    EXPECT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 2; }));
    EXPECT_EQ(board->Supervisor().Heartbeats().front().bytes, "server");
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>{"sync"})
        << "the carrier was there before the daemon";
}

TEST_F(VirtualBoardAlone, RootIsTheBoardsOwn)
{
    options.files["/usr/share/id/name"] = "north gate";
    Boot();
    EXPECT_EQ(board->Run("cat /usr/share/id/name").output, "north gate");
    EXPECT_FALSE(fs::exists("/usr/share/id/name"));
    board->Root().Write("/boot/deep/er/file", "x");
    EXPECT_EQ(board->Run("cd /boot/deep/er && mv file other && cat /var/../boot/deep/er/other").output, "x");
    EXPECT_FALSE(board->Root().Exists("/boot/deep/er/file"));
    EXPECT_THROW(board->Root().Read("/boot/deep/er/file"), std::runtime_error);
    EXPECT_EQ(board->Run("cd /; ls -d home/* tmp/* run/* boot/* 2> /dev/null").output,
              "boot/deep\nhome/root\n");
    EXPECT_EQ(board->Run("ps | grep -c '[l]edboardd'").output, "0\n");
    EXPECT_EQ(board->Run("exit 7").status, 7);
    EXPECT_EQ(board->Run("kill -9 $$").status, 128 + SIGKILL);
    EXPECT_EQ(board->Run("sleep 20", 50ms).status, -1);
    // Too small for a USB disk, and full is full.
    EXPECT_NE(board->Run("dd if=/dev/zero of=/home/root/big bs=1M count=600").status, 0);
    EXPECT_EQ(board->Run("rm /home/root/big; sync; echo still here").output, "still here\n");
}

TEST_F(VirtualBoardAlone, RecordsCommandsAndKeepsThePcFromHarm)
{
    Boot();
    const time_t before = time(nullptr);
    EXPECT_EQ(board->Run("/bin/sh -c '[ a == a ] && echo \"two  words\"\nexit 3'").status, 3);
    EXPECT_EQ(board->Run("for i in 1 2 3 4 5 6 7 8; do sh -c \"exit $i\" & done; wait").status, 0);
    board->Run("sh -c 'date -s \"2001-02-03 04:05:06\"; hwclock -w;'; sh -c -- 'pppd call net'");
    EXPECT_LE(before, time(nullptr)) << "the clock of the PC";

    const auto commands = board->Record().Commands();
    ASSERT_EQ(commands.size(), 11U);
    EXPECT_EQ(commands[0], "[ a == a ] && echo \"two  words\"\nexit 3");
    EXPECT_EQ(std::set<std::string>(commands.begin() + 1, commands.begin() + 9).size(), 8U);
    EXPECT_EQ(commands[10], "pppd call net");
    const std::vector<std::vector<std::string>> calls = {{"date", "-s", "2001-02-03 04:05:06"},
                                                         {"hwclock", "-w"},
                                                         {"pppd", "call", "net"}};
    EXPECT_EQ(board->Record().StandInCalls(), calls);
    EXPECT_EQ(board->Run("pidof pppd > /dev/null && killall pppd").status, 0);
    EXPECT_TRUE(board->WaitFor([&] { return board->Run("pidof pppd").status != 0; }));
    board->Forget();
    EXPECT_TRUE(board->Record().Commands().empty());
}

TEST_F(VirtualBoardWithDaemon, RebootsFromInsideWithTheSameRoot)
{
    Boot();
    board->Root().Write("/home/root/kept", "kept");
    board->Root().Write("/tmp/lost", "lost");
    const pid_t first = board->Daemon().Pid();
    const UniqueFd session = ConnectTo(board->Network().BoardAddress(), 8870);
    board->Run("sh -c reboot");
    ASSERT_TRUE(board->WaitFor([&] { return board->Boots() == 2; }));
    char byte;
    EXPECT_LE(recv(session.Get(), &byte, 1, 0), 0) << "the old daemon's connections are gone";
    EXPECT_NE(board->Daemon().Pid(), first);
    EXPECT_TRUE(board->Player().LoggedIn());
    EXPECT_TRUE(AnswersBroadcast());
    EXPECT_EQ(board->Root().Read("/home/root/kept"), "kept");
    EXPECT_FALSE(board->Root().Exists("/tmp/lost"));
    EXPECT_EQ(board->Record().StandInCalls(), std::vector<std::vector<std::string>>{{"reboot"}});

    board->Run("poweroff");
    EXPECT_TRUE(board->WaitFor([&] { return !board->Running(); }));
    EXPECT_THROW(board->Run("true"), std::runtime_error);
    EXPECT_EQ(board->Root().Read("/home/root/kept"), "kept");
    board->Boot();
    board->Reboot();
    EXPECT_EQ(board->Boots(), 4U);
    EXPECT_TRUE(board->Daemon().Listens());
}

TEST_F(VirtualBoardWithDaemon, DaemonIsKilledRestartedAndLimited)
{
    options.softFileLimit = 300;
    Boot();
    const std::string limits = "/proc/" + std::to_string(board->Daemon().Pid()) + "/limits";
    EXPECT_NE(ReadText(limits).find("Max open files            300 "), std::string::npos);
    EXPECT_GT(board->Daemon().OpenDescriptors(), 5U);
    EXPECT_TRUE(board->Daemon().Kill());
    EXPECT_EQ(board->Daemon().Exit(), 128 + SIGKILL);
    EXPECT_EQ(board->Daemon().Pid(), -1);
    EXPECT_EQ(board->Daemon().OpenDescriptors(), 0U);
    EXPECT_TRUE(board->WaitFor([&] { return !board->Player().LoggedIn(); }));
    board->Daemon().Start();
    EXPECT_TRUE(board->Player().LoggedIn());
    EXPECT_THROW(board->Daemon().Start(), std::runtime_error);

    board->Fpga().Connect(false);
    board->Daemon().Restart();
    EXPECT_EQ(board->Daemon().Exit(), 0);
    EXPECT_TRUE(board->Record().WaitForLog("init basic object fail."));
}

TEST_F(VirtualBoardWithDaemon, CableTakesTheCarrierAway)
{
    Boot();
    board->Network().Cable(false);
    EXPECT_TRUE(board->Record().WaitForLog("parse netlink event."));
    EXPECT_NE(board->Run("ethtool eth0").output.find("Link detected: no"), std::string::npos);
    EXPECT_FALSE(AnswersBroadcast());
    board->Network().Cable(true);
    EXPECT_NE(board->Run("ethtool eth0").output.find("Link detected: yes"), std::string::npos);
    EXPECT_TRUE(board->Record().WaitForCommand("route delete default"));
    EXPECT_TRUE(AnswersBroadcast());
}

TEST_F(VirtualBoardAlone, AddressesByDhcpAndTwoBoardsAtOnce)
{
    options.addressing = board::Addressing::kDhcp;
    options.number = 1;
    Boot();
    board::Options others;
    others.startDaemon = false;
    others.addressing = board::Addressing::kNone;
    board::VirtualBoard second(others);
    second.Boot();
    EXPECT_EQ(second.Network().Eth0Address(), std::nullopt);
    EXPECT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       10s));
    EXPECT_EQ(board->Network().LeaseAddress(), "10.20.31.50");
    const auto routed = [&] { // the lease script sets the address first
        return board->Run("pidof udhcpc > /dev/null && route -n | grep -c '^0.0.0.0 *10.20.31.1'").output ==
               "1\n";
    };
    EXPECT_TRUE(board->WaitFor(routed));
    EXPECT_EQ(board->Run("ping -c 1 -W 2 10.20.31.1").status, 0);
    EXPECT_NE(board->Run("ifconfig eth0").output.find("02:4C:45:44:00:01"), std::string::npos);
}

TEST_F(VirtualBoardAlone, UsbDiskKeepsItsContent)
{
    options.dataMebibytes = 2;
    Boot();
    EXPECT_EQ(board->Run("df -m /home/root/plexa_data | tail -n 1 | awk '{print $2}'").output, "2\n");
    board->UsbDisk().Plug(true, 800);
    EXPECT_EQ(board->Run("echo film > /home/root/usb_dev/a; stat -f -c %b /home/root/usb_dev").output,
              "204800\n");
    board->UsbDisk().Plug(false);
    EXPECT_FALSE(board->Root().Exists("/home/root/usb_dev/a"));
    EXPECT_EQ(board->Run("ls /home/root/usb_dev").output, "");
    board->UsbDisk().Plug(true, 800);
    EXPECT_EQ(board->Run("cat /home/root/usb_dev/a").output, "film\n");
    EXPECT_EQ(board->Root().Read("/home/root/usb_dev/a"), "film\n");
}

TEST_F(VirtualBoardAlone, DecodesTheFpgaLine)
{
    Boot();
    struct Row {
        const char *bytes; // octal, for printf: head, command, value of four bytes, tail
        std::uint8_t command;
        std::uint32_t value;
        const char *meaning;
    };
    const Row rows[] = {
        {"\\245\\001\\0\\0\\0\\0\\245", 1, 0, "settings transfer opens (or smart setting closes)"},
        {"\\245\\002\\0\\0\\0\\0\\245", 2, 0, "parameter block begins"},
        {"\\245\\001\\0\\0\\0\\0\\245", 1, 0, "parameter 1 = 0"},
        {"\\245\\003\\200\\0\\100\\0\\245", 3, 0x400080, "screen size 128 x 64"},
        {"\\245\\376\\020\\047\\0\\0\\245", 254, 10000, "maximum luminance 10000"},
        {"\\245\\002\\001\\0\\0\\0\\245", 2, 1, "parameter block ends"},
        {"\\0\\012\\245\\245\\376\\062\\0\\0\\0\\245", 254, 50, "brightness 50 %"}, // three stray bytes first
        {"\\245\\034\\177\\0\\0\\0\\245", 28, 127, "brightness 127 of 255"},
        {"\\245\\002\\0\\0\\0\\0\\245", 2, 0, "screen off"},
        {"\\245\\002\\001\\0\\0\\0\\245", 2, 1, "screen on"},
        {"\\245\\011\\245\\245\\245\\245\\245", 9, 0xA5A5A5A5, "luminance 2779096485"},
    };
    board->Run("stty -F /dev/ttyO0 raw");
    for (const Row &row : rows)
        board->Run(std::string("printf '") + row.bytes + "' > /dev/ttyO0");
    ASSERT_TRUE(board->Fpga().WaitForFrames(std::size(rows)));
    const auto frames = board->Fpga().Frames();
    ASSERT_EQ(frames.size(), std::size(rows));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].command, rows[i].command) << i;
        EXPECT_EQ(frames[i].value, rows[i].value) << i;
        EXPECT_EQ(frames[i].meaning, rows[i].meaning) << i;
    }
    EXPECT_EQ(board->Fpga().StrayBytes(), 3U);
    EXPECT_TRUE(board->Fpga().WaitForFrame(kIdMaxLuminance, 50, 0ms));
    EXPECT_FALSE(board->Fpga().WaitForFrame(kIdMaxLuminance, 51, 30ms));
}

namespace
{

// Draws one pixel as a program on the board does, through the shim that is preloaded there.
int DrawInBoard(int (*request)(int, unsigned long, ...), const std::string &root)
{
    fb_var_screeninfo mode{};
    fb_fix_screeninfo fixed{};
    const int fd = chroot(root.c_str()) == 0 ? open("/dev/fb0", O_RDWR) : -1;
    if (request(fd, FBIOGET_VSCREENINFO, &mode) != 0 || mode.xres != 16 || mode.yres != 8 ||
        mode.bits_per_pixel != 8)
        return 1;
    mode.bits_per_pixel = 32;
    if (request(fd, FBIOPUT_VSCREENINFO, &mode) == 0 || errno != EINVAL)
        return 2;
    mode.bits_per_pixel = 16;
    mode.red = {11, 5, 0};
    mode.green = {5, 6, 0};
    mode.blue = {0, 5, 0};
    if (request(fd, FBIOPUT_VSCREENINFO, &mode) != 0 || request(fd, FBIOGET_FSCREENINFO, &fixed) != 0)
        return 3;
    const std::uint16_t colour = 0x1F << 11 | 0x15 << 5;
    if (fixed.line_length != 32 || pwrite(fd, &colour, sizeof colour, 2 * 32 + 3 * 2) != 2)
        return 4;
    const int other = open("/dev/null", O_RDWR);
    return request(other, FBIOGET_VSCREENINFO, &mode) == -1 && errno == ENOTTY ? 0 : 5;
}

} // namespace

TEST_F(VirtualBoardAlone, ScreenAnswersFramebufferRequests)
{
    options.screens = {{.width = 16, .height = 8, .bitsPerPixel = 8, .refuses32 = true}};
    Boot();
    void *shim = dlopen((board->Root().Folder() + board::kShimPath).c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(shim, nullptr) << dlerror();
    const auto request = reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(shim, "ioctl"));
    const pid_t child = fork();
    if (child == 0)
        _exit(DrawInBoard(request, board->Root().Folder()));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const auto picture = board::ReadFramebuffer(board->Root());
    ASSERT_TRUE(picture.has_value());
    EXPECT_EQ(picture->bitsPerPixel, 16U);
    EXPECT_EQ(picture->Pixel(3, 2), 0xFF5500U);
    EXPECT_EQ(picture->Pixel(2, 3), 0U);
    const std::string file = picture->Png();
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_NE(png_image_begin_read_from_memory(&image, file.data(), file.size()), 0) << image.message;
    EXPECT_EQ(image.width, 16U);
    EXPECT_EQ(image.height, 8U);
    image.format = PNG_FORMAT_RGB;
    std::string colours(std::size_t{16} * 8 * 3, '?');
    ASSERT_NE(png_image_finish_read(&image, nullptr, colours.data(), 0, nullptr), 0) << image.message;
    EXPECT_EQ(colours.substr((2 * 16 + 3) * 3, 3), std::string("\xFF\x55\0", 3));
    EXPECT_EQ(colours.find_first_not_of('\0'), std::size_t{(2 * 16 + 3) * 3});
}

// Plays the daemon's end of the player's session byte by byte.
TEST_F(VirtualBoardAlone, PlayerLogsInListensAndComesBack)
{
    options.player = false;
    Boot();
    const UniqueFd listener(board->Network().Socket(AF_INET, SOCK_STREAM));
    const sockaddr_in here = At("127.0.0.1", 8870);
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr *>(&here), sizeof here), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    board->Player().Connect(true);
    for (unsigned round = 1; round <= 2; ++round) {
        const UniqueFd session(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        char login[8];
        ASSERT_EQ(recv(session.Get(), login, sizeof login, MSG_WAITALL), 8);
        EXPECT_EQ(std::string(login, 8), Login(kPlayer));
        EXPECT_FALSE(board->Player().LoggedIn());
        const std::string fromDaemon = LoginReply(kLoginAccepted) + PlayerMessage(kPlayerRecvEnd) +
                                       PlayerMessage(kPlayerSmartSetting, 1);
        for (const char byte : fromDaemon)
            ASSERT_EQ(send(session.Get(), &byte, 1, MSG_NOSIGNAL), 1);
        ASSERT_TRUE(board->Player().WaitForMessage(kPlayerSmartSetting, round));
        const auto messages = board->Player().Messages();
        EXPECT_EQ(messages[messages.size() - 2].name, "SS_CMD_RECV_END");
        EXPECT_FALSE(messages[messages.size() - 2].value.has_value());
        EXPECT_EQ(messages.back().value, 1U);
        char fromPlayer[16];
        EXPECT_TRUE(board->Player().Send(kPlayerScreenOnOff, 1));
        ASSERT_EQ(recv(session.Get(), fromPlayer, sizeof fromPlayer, MSG_WAITALL), 16);
        EXPECT_EQ(std::string(fromPlayer, 16), PlayerMessage(kPlayerScreenOnOff, 1));
    }
    EXPECT_TRUE(board->WaitFor([&] { return !board->Player().LoggedIn(); }));
    EXPECT_FALSE(board->Player().Send(kPlayerScreenOnOff));
}

TEST_F(VirtualBoardWithDaemon, SupervisorHearsTheDaemonAgainAfterItsOwnAbsence)
{
    Boot();
    ASSERT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 1; }));
    board->Supervisor().Listen(false);
    board->Forget();
    board->Supervisor().Listen(true);
    ASSERT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 1; }, 10s));
    EXPECT_EQ(board->Supervisor().Heartbeats().front().connection, 2U);
}

namespace
{

std::size_t CountProcesses()
{
    std::size_t count = 0;
    for (const auto &entry : fs::directory_iterator("/proc"))
        count += std::isdigit(static_cast<unsigned char>(entry.path().filename().string()[0])) != 0 ? 1 : 0;
    return count;
}

// A PC side within this one; a byte through the pipe reports that its board is up.
pid_t StartNested(int report)
{
    const pid_t child = fork();
    if (child != 0)
        return child;
    board::EnterPcSide();
    board::VirtualBoard nested;
    nested.Boot();
    const char up = 1;
    [[maybe_unused]] const ssize_t written = write(report, &up, 1);
    for (;;)
        pause();
}

} // namespace

// Kills the process outside at different moments of its start, and the process that uses the library.
TEST(VirtualBoardEnd, NothingIsLeftAfterAKill)
{
    struct Row {
        int generation; // which process is killed: 0 the one that was started, 2 the one that uses the
                        // library
        int after;      // milliseconds; -1: when the board is up
    };
    const std::size_t processes = CountProcesses();
    const std::string mounts = ReadText("/proc/self/mounts");
    const auto interfaces = [] { return std::ranges::count(ReadText("/proc/net/dev"), ':'); };
    const auto interfacesBefore = interfaces();
    for (const Row &row : {Row{0, 0}, Row{0, 3}, Row{0, 15}, Row{0, 40}, Row{0, -1}, Row{2, -1}}) {
        int pipe[2];
        ASSERT_EQ(pipe2(pipe, O_CLOEXEC), 0);
        const UniqueFd reader(pipe[0]), writer(pipe[1]);
        const pid_t outer = StartNested(writer.Get());
        char up = 0;
        if (row.after < 0)
            ASSERT_EQ(read(reader.Get(), &up, 1), 1);
        else
            usleep(static_cast<useconds_t>(row.after * 1000));
        std::string victim = std::to_string(outer);
        for (int generation = 0; generation < row.generation; ++generation)
            victim = std::to_string(std::stoi(ReadText(fmt::format("/proc/{0}/task/{0}/children", victim))));
        ASSERT_EQ(kill(std::stoi(victim), SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(outer, &status, 0), outer);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the outer process ends in the same way";
        const auto end = std::chrono::steady_clock::now() + 3s;
        while (CountProcesses() != processes && std::chrono::steady_clock::now() < end)
            usleep(1000);
        EXPECT_EQ(CountProcesses(), processes) << row.generation << " " << row.after;
    }
    EXPECT_EQ(ReadText("/proc/self/mounts"), mounts);
    EXPECT_EQ(interfaces(), interfacesBefore);
    EXPECT_TRUE(fs::is_empty(board::kPcFolder));
}
