// SPDX-License-Identifier: MIT
// What the setting service does for well-behaved clients: bytes on port 8879, files, frames, commands, log.
#include "settings_peer.h"

#include <unistd.h>

#include <cstring>
#include <ctime>

using namespace std::chrono_literals;

TEST_F(SettingsTest, StartsWithTheSettingsOfItsFile)
{
    options.files[kWorking] = SettingFile(Panel());
    Boot();
    ExpectFrames(Transfer(Panel()));
    EXPECT_EQ(board->Fpga().StrayBytes(), 0U);
    EXPECT_TRUE(board->Record().WaitForLog("serial_thread init success."));
    EXPECT_TRUE(board->Record().WaitForLog("socket listenning in 8879 port success."));
    EXPECT_TRUE(board->Record().WaitForLog("serial writeted: a5  1  0  0  0  0 a5 "));
    EXPECT_TRUE(board->Record().WaitForLog("serial init writed:  a5  2  1  0  0  0 a5"));
    const termios line = board->Fpga().Attributes();
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B115200));
    EXPECT_EQ(line.c_lflag & (ICANON | ECHO), 0U);
    EXPECT_TRUE(WaitForBootCopy());
    // The cache was cut to the highest luminance of the file.
    EXPECT_TRUE(board->Player().Send(5, 50));
    EXPECT_TRUE(board->Fpga().WaitForFrame(9, 20));
}

TEST_F(SettingsTest, WithoutALineItDoesNotStart)
{
    options.serial = false;
    Boot();
    EXPECT_TRUE(board->Daemon().WaitForExit());
    EXPECT_EQ(board->Daemon().Exit(), 0);
    const std::vector<std::string> lines = {"open serial fail.",
                                            "[---src/main.cpp::main::35---] serial init fail.",
                                            "[---src/main.cpp::main::49---] init basic object fail."};
    EXPECT_EQ(board->Record().Log(), lines);
}

TEST_F(SettingsTest, LoadsSavesAndReadsBack)
{
    Boot();
    const std::string file = SettingFile(Panel());
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(1) + Packet(2, file.substr(0, 100)) + Packet(2, file.substr(100))));
    Settle(port);
    EXPECT_FALSE(board->Root().Exists(kWorking));
    EXPECT_TRUE(port.Send(Command(5)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), file);
    EXPECT_FALSE(board->Root().Exists(kStaged));
    Pairs booted = Panel();
    booted[5].second = 18;
    booted[6].second = 0;
    EXPECT_EQ(board->Root().Read(kBoot), SettingFile(booted));
    EXPECT_EQ(board->Record().Commands(),
              (std::vector<std::string>{"sync", "mv setting.ss.bak /home/root/plexa_data/setting.ss", "sync",
                                        "sync"}));
    EXPECT_TRUE(board->Record().WaitForLog("cmd: ss save."));
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (128, 64), l: 18."));

    EXPECT_TRUE(board->Fpga().WaitForFrames(1));
    board->Forget();
    EXPECT_TRUE(port.Send(Command(10)));
    Settle(port);
    ExpectFrames(Transfer(Panel()));

    EXPECT_TRUE(port.Send(Command(4)));
    EXPECT_EQ(port.Take(48),
              Records({{18, 9}, {4, 16}, {3, 128 + 64 * 65536}, {12, 0}, {14, 8}}) + std::string(8, '\xFF'));
    EXPECT_TRUE(port.Send(Command(13, Zeros(1))));
    EXPECT_TRUE(port.Send(Command(13, std::string(1, '\x32'))));
    EXPECT_TRUE(port.Send(Command(8)));
    EXPECT_EQ(port.Take(80),
              Records(
                  {{18, 9}, {3, 128 + 64 * 65536}, {12, 0}, {9, 20}, {11, 7}, {254, 20}, {26, 0}, {255, 5}}) +
                  std::string(8, '\xFF') + Records({{253, 50}}));
    EXPECT_TRUE(port.Send(Command(9)));
    EXPECT_EQ(port.Take(16 + file.size()), Records({{253, 50}}) + file + Zeros(8));
    EXPECT_TRUE(board->Record().WaitForLog("sends size: 136"));
    End(port);
    EXPECT_TRUE(board->Record().WaitForLog("read rr send finish."));
}

TEST_F(SettingsTest, FolderIsLookedForWhereTheDaemonWasStarted)
{
    Boot();
    board->Root().MakeFolder("/home/root/home/root/plexa_data");
    EXPECT_EQ(board->Run("rm -r /home/root/plexa_data").status, 0);
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(1) + Packet(2, SettingFile(Panel())) + Command(5)));
    Settle(port);
    EXPECT_TRUE(board->Record().WaitForCommand("mv setting.ss.bak"));
    EXPECT_FALSE(board->Root().Exists("/home/root/plexa_data")) << "found in the wrong place, so not made";
}

TEST_F(SettingsTest, CopyOverKeepsTheTail)
{
    const std::string old = SettingFile({{5, 1}, {6, 2}, {7, 3}});
    options.files[kWorking] = old;
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(1) + Packet(2, "staged and dropped") + Command(7) + Packet(2, "nowhere")));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kStaged), "staged and dropped");
    EXPECT_TRUE(port.Send(Command(1) + Packet(2, SettingFile({{5, 9}})) + Command(6)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile({{5, 9}}) + old.substr(16));
    EXPECT_EQ(board->Root().Read(kBoot), board->Root().Read(kWorking));
    EXPECT_TRUE(board->Record().WaitForLog("copy /home/root/plexa_data/setting.ss to /boot"));
    // The staged file is open again for update.
    EXPECT_TRUE(port.Send(Packet(2, "\x6D\x48\2")));
    End(port);
    EXPECT_EQ(board->Root().Read(kStaged).substr(0, 5), std::string("\x6D\x48\2\0\x08", 5));
}

TEST_F(SettingsTest, BadFilesSendNothingMore)
{
    Boot();
    struct Row {
        std::string file, line;
        std::size_t frames;
    };
    const std::string good = SettingFile({{5, 1}, {6, 2}});
    const Row rows[] = {
        {"", "setting.ss file is empty. 0", 1},
        {"\x6C\x48" + good.substr(2), "setting.ss head id error.", 1},
        {"\x6D\x48" + Zeros(2) + good.substr(4), "command counts error.", 1},
        {good.substr(0, 4), "setting.ss file is empty.", 1},
        {"\x6D\x48\3" + good.substr(3), "setting.ss header error.", 1},
        {good.substr(0, 20), "setting file error", 4},
    };
    const std::size_t descriptors = SettledDescriptors(*board);
    const Peer port = Port();
    EXPECT_TRUE(board->Fpga().WaitForFrames(1));
    for (const Row &row : rows) {
        board->Forget();
        board->Root().Write(kWorking, row.file);
        EXPECT_TRUE(port.Send(Command(10)));
        Settle(port);
        EXPECT_TRUE(board->Record().WaitForLog(row.line));
        EXPECT_TRUE(board->Fpga().WaitForFrames(row.frames)) << row.line;
        EXPECT_EQ(board->Fpga().Frames().size(), row.frames) << row.line;
    }
    EXPECT_LE(board->Daemon().OpenDescriptors(), descriptors + 1);
    board->Run(std::string("rm ") + kWorking);
    EXPECT_TRUE(port.Send(Command(4) + Command(8) + Command(9)));
    EXPECT_EQ(port.Take(136), std::string(128, '\xFF') + Zeros(8));
    EXPECT_TRUE(board->Record().WaitForLog("open setting.ss fail: No such file or directory."));
    EXPECT_TRUE(board->Record().WaitForLog("sends size: 8"));
}

TEST_F(SettingsTest, FramesGoThroughAndAreKeptOnRequest)
{
    BootAndForget();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(FpgaPacket(14, 5) + FpgaPacket(22, 0)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(Panel()));
    EXPECT_TRUE(board->Record().WaitForLog("serial writed: a5 e 5 0 0 0 a5 "));

    // A larger panel bears less: records 254 and 9 follow, and the FPGA hears of it.
    EXPECT_TRUE(port.Send(Command(2) + FpgaPacket(14, 6) + FpgaPacket(3, 128 + 64 * 65536) +
                          FpgaPacket(3, 1024 + 512 * 65536) + FpgaPacket(77, 1) + Command(3)));
    Settle(port);
    Pairs kept = Panel();
    kept[7].second = 6;
    kept[3].second = 1024 + 512 * 65536;
    kept[8].second = 17;
    kept[5].second = 17;
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(kept));
    ExpectFrames(
        {{14, 5}, {22, 0}, {14, 6}, {3, 128 + 64 * 65536}, {3, 1024 + 512 * 65536}, {9, 17}, {77, 1}});
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (1024, 512)"));
    EXPECT_EQ(Count("screen size not changed."), 1U);
    EXPECT_TRUE(port.Send(Packet(1, "\xA5 longer")));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("cmd: serial cmd, lengths error: 9."));
}

TEST_F(SettingsTest, LuminanceAndBootScreenFiles)
{
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(24) + Command(14, "\1")));
    EXPECT_EQ(port.Take(12), Zeros(2) + std::string("\11\0", 2) + Le32(14) + Le32(0));
    const std::string stored = std::string("\11\0", 2) + Le32(14) + Le32(1);
    EXPECT_TRUE(port.Send(Command(14, std::string(1, '\0') + "inner ") +
                          Command(14, std::string(1, '\0') + "disk") + Command(14, "\1")));
    EXPECT_EQ(port.Take(10), stored);
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file"), "inner disk");
    EXPECT_TRUE(board->Record().WaitForLog("g_luminance_flush_flag: 1"));
    EXPECT_TRUE(board->Player().WaitForMessage(3));
    EXPECT_EQ(board->Player().Messages().back().bytes, Le32(12) + Le32(3) + Le32(3));

    board->Root().Write("/home/root/usb_dev/tarvo/luminance_file", "old");
    EXPECT_TRUE(port.Send(Command(14, std::string(1, '\0') + std::string(249, 'u')) + Command(14, "\1") +
                          Command(24)));
    EXPECT_EQ(port.Take(10), stored);
    EXPECT_EQ(port.Take(253), Le32(249) + std::string(249, 'u'));
    EXPECT_TRUE(board->Record().WaitForCommand(
        "cp /home/root/usb_dev/tarvo/luminance_file /home/root/plexa_data/luminance_file"));
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file"), std::string(249, 'u'));

    EXPECT_TRUE(port.Send(Command(17, std::string(1, '\0') + "picture") + Command(17, "\1")));
    EXPECT_EQ(port.Take(10), std::string("\11\0", 2) + Le32(17) + Le32(1));
    EXPECT_EQ(board->Root().Read("/boot/disp.bin"), "picture");
    EXPECT_TRUE(port.Send(Command(18)));
    EXPECT_EQ(port.Take(6), Acknowledged(18));
    EXPECT_FALSE(board->Root().Exists("/boot/disp.bin"));
    EXPECT_TRUE(port.Send(Command(17, "\2")));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("1605."));
}

TEST_F(SettingsTest, NameIdentityClockAndPlayerModes)
{
    Boot();
    board->Forget();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(11, "north gate") + Command(19) + Command(19, "K3-7654321098")));
    EXPECT_TRUE(port.Send(Command(12, Le32(1716969600) + Le32(399)))); // 1714000000000 ms
    EXPECT_EQ(port.Take(6), Acknowledged(12));
    EXPECT_EQ(board->Root().Read("/usr/share/id/name"), "north gate");
    EXPECT_EQ(board->Root().Read("/usr/share/id/config"), "K3-7654321098");
    const auto calls = board->Record().StandInCalls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0], (std::vector<std::string>{"date", "-s", calls[0].back()}));
    EXPECT_EQ(calls[1], (std::vector<std::string>{"hwclock", "-w"}));
    EXPECT_TRUE(
        port.Send(Command(21, Le32(1)) + Command(21, Le32(2)) + Command(25) + Command(26) + Command(22)));
    EXPECT_TRUE(board->Player().WaitForMessage(8, 2));
    std::string told;
    for (const board::PlayerMessage &message : board->Player().Messages())
        told += message.bytes;
    EXPECT_EQ(told, Le32(16) + Le32(3) + Le32(10) + Le32(0) + Le32(16) + Le32(3) + Le32(8) + Le32(1) +
                        Le32(16) + Le32(3) + Le32(8) + Le32(0));
    EXPECT_TRUE(board->Record().WaitForCommand("pidof plexa"));
    EXPECT_TRUE(port.Send(Command(15)));
    const std::string time = port.Take(14);
    std::int64_t milliseconds = 0;
    std::memcpy(&milliseconds, time.data() + 6, sizeof milliseconds);
    EXPECT_NEAR(static_cast<double>(milliseconds), static_cast<double>(std::time(nullptr)) * 1000, 5000);
    board->Forget();
    EXPECT_TRUE(port.Send(Command(16)));
    EXPECT_EQ(port.Take(6), Acknowledged(16));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("execl(\"/home/root/plexa/start_debug.sh\", 0, 0, environ)"));
    EXPECT_TRUE(board->Record().WaitForLog("socket listenning in 8879"));
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>()) << "no probe behind a debugging client";
    for (const std::uint32_t code : {20U, 29U, 0x80000000U}) {
        const Peer other = Port();
        EXPECT_TRUE(other.Send(Command(code)));
        EXPECT_TRUE(other.Ended()) << code;
    }
}

TEST_F(SettingsTest, ThePlayerChangesSettings)
{
    BootAndForget();
    EXPECT_TRUE(board->Player().Send(11, 1) && board->Player().Send(11, 0) &&
                board->Player().Send(4, 64 + 32 * 65536));
    EXPECT_TRUE(board->Player().Send(5, 150) && board->Player().Send(5, 50) && board->Player().Send(5));
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (64, 32)", 3));
    ExpectFrames({{2, 0},
                  {2, 1},
                  {3, 64 + 32 * 65536},
                  {9, 18},
                  {254, 150},
                  {9, 18},
                  {28, 255},
                  {29, 255},
                  {30, 255},
                  {254, 50},
                  {9, 18},
                  {28, 127},
                  {29, 127},
                  {30, 127}});
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::ScreenOnOff::318---] scrren off"));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::ScreenOnOff::315---] scrren on"));
    EXPECT_TRUE(board->Record().WaitForLog("[---g_serial change screen size: 2097216.---]"));

    // Only size, luminance and brightness differ: nothing new.
    const Peer session = Session();
    Pairs players = Panel();
    players[3].second = 1;
    players[5].second = 2;
    players[6].second = 0;
    players[8].second = 3;
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    board->Forget();
    EXPECT_TRUE(board->Player().Send(6));
    EXPECT_TRUE(board->Record().WaitForLog(
        "[---src/server_witch_plexa::UpdateSettingFile::135---] setting.ss file not has "
        "been to update."));
    EXPECT_TRUE(board->Fpga().Frames().empty());
    players[7].second = 4;
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    EXPECT_TRUE(board->Player().Send(6));
    EXPECT_TRUE(session.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::UpdateSettingFile::162---] "
                                           "-------------------------------"));
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(players));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    EXPECT_TRUE(board->Fpga().WaitForFrames(2 * Transfer(players).size()))
        << "for the player, then at the log-out";

    players[7].second = 8;
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(23)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(players));
}

TEST_F(SettingsTest, SessionsCarryTheSamePackets)
{
    BootAndForget();
    const Peer session = Session();
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogIn::2065---] "));
    EXPECT_TRUE(session.Send(Framed(Command(13, "\x32")) + Framed(FpgaPacket(14, 3)) + Framed(Command(8))));
    EXPECT_EQ(session.Take(80).substr(72), Records({{253, 50}}));
    ExpectFrames({{28, 127}, {29, 127}, {30, 127}, {14, 3}});
    // Its own length says more than the frame brings, nothing, or stands in a frame that is too short.
    EXPECT_TRUE(session.Send(Framed(std::string("\6\0", 2) + Le32(8)) + Framed(Zeros(2)) + Framed("") +
                             Le32(6) + "xx"));
    EXPECT_TRUE(board->Record().WaitForLog("packet does not fit its frame, dropped.", 4));
    // What stands behind the packet is not part of it.
    EXPECT_TRUE(session.Send(Framed(Command(13) + "\x32") + Framed(Command(8))));
    EXPECT_EQ(session.Take(80).substr(72), Records({{253, 100}}));
    EXPECT_TRUE(session.Send(Framed(Command(20)) + Framed(Command(9)) + Framed(Command(0))));
    const std::string file = board->Root().Read(kWorking);
    EXPECT_EQ(session.Take(16 + file.size()), Records({{253, 100}}) + file + Zeros(8));
    EXPECT_TRUE(session.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    EXPECT_TRUE(board->Fpga().WaitForFrame(2, 1)) << "the settings go out at the log-out";
}

TEST_F(SettingsTest, SignalAppliesSerialIni)
{
    constexpr char kActedOn[] = "-------------------------sig_handle be call--------------------------";
    BootAndForget();
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog(kActedOn));
    // A signal that finds the loop at work interrupts nothing; one that waits swallows the next.
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    std::size_t sent = 1;
    while (Count("select was interrupted.") == 0 && std::chrono::steady_clock::now() < deadline) {
        EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
        EXPECT_TRUE(board->Record().WaitForLog(kActedOn, ++sent));
    }
    EXPECT_GE(Count("select was interrupted."), 1U);
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR2)); // without a screen it does nothing; the others are through
                                                  // by then
    EXPECT_TRUE(board->Record().WaitForLog(kActedOn, ++sent));
    // The places are fixed, and the last character goes also where it is no line's end.
    board->Root().Write("/home/root/plexa/serial.ini",
                        "kScreenSize=4194368\nnothing\n# kLuminance=77\nkLuminance=509");
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog("g_serial_thread write serial, kLuminance=50."));
    EXPECT_TRUE(board->Fpga().WaitForFrame(30, 127));
    ExpectFrames({{3, 4194368},
                  {9, 18},
                  {254, 0},
                  {9, 18},
                  {28, 255},
                  {29, 255},
                  {30, 255},
                  {254, 50},
                  {9, 18},
                  {28, 127},
                  {29, 127},
                  {30, 127}});
}

class RebootSchedule : public SettingsTest
{
protected:
    // Every day, some seconds from now on the board's clock moved on by `offset` minutes.
    static std::string Ploy(int offset, int seconds)
    {
        const std::time_t due = std::time(nullptr) + 60 * offset + seconds;
        std::tm local{};
        localtime_r(&due, &local);
        return std::string("\1??", 3) + Le32(static_cast<std::uint32_t>(offset)).substr(0, 2) +
               static_cast<char>(local.tm_hour) + static_cast<char>(local.tm_min) +
               static_cast<char>(local.tm_sec) + "?" + Le32(0) + Le32(1) + Le32(0);
    }
};

TEST_F(RebootSchedule, IsReadWrittenAndKept)
{
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(27)));
    EXPECT_EQ(port.Take(27), std::string("\x1A\0", 2) + Le32(27) + Zeros(21));
    EXPECT_TRUE(board->Record().WaitForLog("DisposePacket::1745 get reboot ploy."));
    const std::string ploy = Ploy(0, 3600);
    EXPECT_TRUE(port.Send(Command(28, ploy) + Command(27)));
    EXPECT_EQ(port.Take(33), Acknowledged(28) + std::string("\x1A\0", 2) + Le32(27) + ploy);
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/reboot_ploy"), ploy);
    EXPECT_TRUE(board->Record().WaitForLog("start reboot timer"));
    EXPECT_EQ(Count(" 3600  seconds.") + Count(" 359"), 1U) << "less what the way took";

    board->Forget();
    EXPECT_TRUE(port.Send(Command(28, Zeros(21))));
    EXPECT_EQ(port.Take(6), Acknowledged(28));
    EXPECT_TRUE(board->Record().WaitForLog("reboot flag is false, stop reboot timer"));
    std::string weekdays = Ploy(0, 5);
    weekdays.replace(9, 4, Le32(1));
    EXPECT_TRUE(port.Send(Command(28, weekdays)));
    EXPECT_EQ(port.Take(6), Acknowledged(28));
    EXPECT_TRUE(board->Record().WaitForLog("anyone week been checked, stop reboot timer!"));
    board->Root().Write("/home/root/plexa_data/reboot_ploy", "twenty bytes, no more");
    board->Root().Write("/home/root/plexa_data/reboot_ploy", "twenty bytes, no mor");
    EXPECT_TRUE(port.Send(Command(12, Le32(0) + Le32(300))));
    EXPECT_TRUE(board->Record().WaitForLog("reboot ploy file size is error."));
    // A folder cannot be opened for writing; the acknowledgement comes all the same.
    board->Run("rm /home/root/plexa_data/reboot_ploy; mkdir -p /home/root/plexa_data/reboot_ploy/x");
    EXPECT_EQ(port.Take(6), Acknowledged(12));
    EXPECT_TRUE(port.Send(Command(28, ploy)));
    EXPECT_EQ(port.Take(6), Acknowledged(28));
}

TEST_F(RebootSchedule, RebootsTheBoardInTime)
{
    for (const int offset : {0, -90}) {
        if (!board)
            Boot();
        const unsigned boots = board->Boots();
        const Peer port = Port();
        const std::time_t due = std::time(nullptr) + 3;
        EXPECT_TRUE(port.Send(Command(28, Ploy(offset, 3))));
        EXPECT_EQ(port.Take(6), Acknowledged(28));
        // Its ticks are not those of the clock: this board is up again before its time and reboots once more.
        EXPECT_TRUE(
            board->WaitFor([&] { return board->Boots() > boots && std::time(nullptr) > due + 1; }, 15s))
            << offset;
        EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().Listens(); }));
        EXPECT_TRUE(board->Record().WaitForLog("RebootTimer  reboot now."));
        EXPECT_EQ(board->Record().StandInCalls().back(), std::vector<std::string>{"reboot"});
        // Read at start: the next one is due in a day.
        EXPECT_TRUE(board->Record().WaitForLog("start reboot timer", offset == 0 ? 2 : 4));
    }
}
