// SPDX-License-Identifier: MIT
// What the setting service does for well-behaved clients: bytes on port 8879, files, frames, commands, log.
#include "player_codes.h"
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
    // The luminance in use was limited to the highest one of the file.
    EXPECT_TRUE(board->Player().Send(kPlayerBrightness, 50));
    EXPECT_TRUE(board->Fpga().WaitForFrame(kIdLuminance, 20));
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
    EXPECT_TRUE(port.Send(Command(kSettingStart) + Packet(kPacketData, file.substr(0, 100)) +
                          Packet(kPacketData, file.substr(100))));
    Settle(port);
    EXPECT_FALSE(board->Root().Exists(kWorking));
    EXPECT_TRUE(port.Send(Command(kSettingSave)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), file);
    EXPECT_FALSE(board->Root().Exists(kStaged));
    Pairs booted = Panel();
    SetValue(&booted, kIdLuminance, 18);
    SetValue(&booted, kIdCleared, 0);
    EXPECT_EQ(board->Root().Read(kBoot), SettingFile(booted));
    EXPECT_EQ(board->Record().Commands(),
              (std::vector<std::string>{"sync", "mv setting.ss.bak /home/root/plexa_data/setting.ss", "sync",
                                        "sync"}));
    EXPECT_TRUE(board->Record().WaitForLog("cmd: ss save."));
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (128, 64), l: 18."));

    EXPECT_TRUE(board->Fpga().WaitForFrames(1));
    board->Forget();
    EXPECT_TRUE(port.Send(Command(kSettingSendToFpga)));
    Settle(port);
    ExpectFrames(Transfer(Panel()));

    EXPECT_TRUE(port.Send(Command(kSettingReadRefresh)));
    EXPECT_EQ(port.Take(48), Records({{kIdGrayBits, 9},
                                      {kIdScan, 16},
                                      {kIdScreenSize, ScreenSize(128, 64)},
                                      {kIdPulseIndex, 0},
                                      {kIdScanRows, 8}}) +
                                 std::string(8, '\xFF'));
    EXPECT_TRUE(port.Send(Command(kSettingBrightness, Zeros(1))));
    EXPECT_TRUE(port.Send(Command(kSettingBrightness, std::string(1, '\x32'))));
    EXPECT_TRUE(port.Send(Command(kSettingReadScreen)));
    EXPECT_EQ(port.Take(80), Records({{kIdGrayBits, 9},
                                      {kIdScreenSize, ScreenSize(128, 64)},
                                      {kIdPulseIndex, 0},
                                      {kIdLuminance, 20},
                                      {kIdCleared, 7},
                                      {kIdMaxLuminance, 20},
                                      {kIdPulseBank, 0},
                                      {kIdUnknown, 5}}) +
                                 std::string(8, '\xFF') + Records({{kIdBrightnessPercent, 50}}));
    EXPECT_TRUE(port.Send(Command(kSettingReadFile)));
    EXPECT_EQ(port.Take(16 + file.size()), Records({{kIdBrightnessPercent, 50}}) + file + Zeros(8));
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
    EXPECT_TRUE(port.Send(Command(kSettingStart) + Packet(kPacketData, SettingFile(Panel())) +
                          Command(kSettingSave)));
    Settle(port);
    EXPECT_TRUE(board->Record().WaitForCommand("mv setting.ss.bak"));
    EXPECT_FALSE(board->Root().Exists("/home/root/plexa_data"))
        << "not made: it was found in the wrong place";
}

TEST_F(SettingsTest, CopyOverKeepsTheTail)
{
    const std::string old = SettingFile({{5, 1}, {6, 2}, {7, 3}});
    options.files[kWorking] = old;
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(kSettingStart) + Packet(kPacketData, "staged and dropped") +
                          Command(kSettingNotSave) + Packet(kPacketData, "nowhere")));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kStaged), "staged and dropped");
    EXPECT_TRUE(port.Send(Command(kSettingStart) + Packet(kPacketData, SettingFile({{5, 9}})) +
                          Command(kSettingCopyOver)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile({{5, 9}}) + old.substr(16));
    EXPECT_EQ(board->Root().Read(kBoot), board->Root().Read(kWorking));
    EXPECT_TRUE(board->Record().WaitForLog("copy /home/root/plexa_data/setting.ss to /boot"));
    // The staged file is open again for update.
    const std::string headId = "\x6D\x48";
    EXPECT_TRUE(port.Send(Packet(kPacketData, headId + "\2")));
    End(port);
    const std::string count = Le16(2), dataLength = Le32(8);
    EXPECT_EQ(board->Root().Read(kStaged).substr(0, 8), headId + count + dataLength);
}

TEST_F(SettingsTest, TransferEndsWhereTheFileIsBad)
{
    Boot();
    struct Row {
        std::string file, line;
        std::size_t frames;
    };
    const std::string good = SettingFile({{5, 1}, {6, 2}}); // head id u16, count u16, data length, records
    const std::string otherHeadId = "\x6C\x48";
    const Row rows[] = {
        {"", "setting.ss file is empty. 0", 1},
        {otherHeadId + good.substr(2), "setting.ss head id error.", 1},
        {good.substr(0, 2) + Le16(0) + good.substr(4), "command counts error.", 1},
        {good.substr(0, 4), "setting.ss file is empty.", 1},
        {good.substr(0, 2) + Le16(3) + good.substr(4), "setting.ss header error.", 1},
        {good.substr(0, 20), "setting file error", 4},
    };
    const std::size_t descriptors = SettledDescriptors(*board);
    const Peer port = Port();
    EXPECT_TRUE(board->Fpga().WaitForFrames(1));
    for (const Row &row : rows) {
        board->Forget();
        board->Root().Write(kWorking, row.file);
        EXPECT_TRUE(port.Send(Command(kSettingSendToFpga)));
        Settle(port);
        EXPECT_TRUE(board->Record().WaitForLog(row.line));
        EXPECT_TRUE(board->Fpga().WaitForFrames(row.frames)) << row.line;
        EXPECT_EQ(board->Fpga().Frames().size(), row.frames) << row.line;
    }
    EXPECT_LE(board->Daemon().OpenDescriptors(), descriptors + 1);
    board->Run(std::string("rm ") + kWorking);
    EXPECT_TRUE(
        port.Send(Command(kSettingReadRefresh) + Command(kSettingReadScreen) + Command(kSettingReadFile)));
    EXPECT_EQ(port.Take(136), std::string(128, '\xFF') + Zeros(8));
    EXPECT_TRUE(board->Record().WaitForLog("open setting.ss fail: No such file or directory."));
    EXPECT_TRUE(board->Record().WaitForLog("sends size: 8"));
}

TEST_F(SettingsTest, FramesGoThroughAndAreKeptOnRequest)
{
    BootAndForget();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(FpgaPacket(kIdScanRows, 5) + FpgaPacket(kIdModelType, 0)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(Panel()));
    EXPECT_TRUE(board->Record().WaitForLog("serial writed: a5 e 5 0 0 0 a5 "));

    // The highest luminance of a larger panel is lower: it is stored in records 254 and 9, and sent to the
    // FPGA.
    EXPECT_TRUE(port.Send(Command(kSettingKeepFrames) + FpgaPacket(kIdScanRows, 6) +
                          FpgaPacket(kIdScreenSize, ScreenSize(128, 64)) +
                          FpgaPacket(kIdScreenSize, ScreenSize(1024, 512)) + FpgaPacket(77, 1) +
                          Command(kSettingDropFrames)));
    Settle(port);
    Pairs kept = Panel();
    SetValue(&kept, kIdScanRows, 6);
    SetValue(&kept, kIdScreenSize, ScreenSize(1024, 512));
    SetValue(&kept, kIdMaxLuminance, 17);
    SetValue(&kept, kIdLuminance, 17);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(kept));
    ExpectFrames({{kIdScanRows, 5},
                  {kIdModelType, 0},
                  {kIdScanRows, 6},
                  {kIdScreenSize, ScreenSize(128, 64)},
                  {kIdScreenSize, ScreenSize(1024, 512)},
                  {kIdLuminance, 17},
                  {77, 1}});
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (1024, 512)"));
    EXPECT_EQ(Count("screen size not changed."), 1U);
    EXPECT_TRUE(port.Send(Packet(kPacketFrame, "\xA5 longer")));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("cmd: serial cmd, lengths error: 9."));
}

TEST_F(SettingsTest, LuminanceAndBootScreenFiles)
{
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(kSettingReadLuminance) + Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(port.Take(12), Zeros(2) + TransferEnded(kSettingLuminanceFile, kNotStored));
    const std::string stored = TransferEnded(kSettingLuminanceFile, kStored);
    EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkData, "inner ") +
                          Chunk(kSettingLuminanceFile, kChunkData, "disk") +
                          Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(port.Take(10), stored);
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file"), "inner disk");
    EXPECT_TRUE(board->Record().WaitForLog("g_luminance_flush_flag: 1"));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerLuminanceFile));
    EXPECT_EQ(board->Player().Messages().back().bytes, PlayerMessage(kPlayerLuminanceFile));

    board->Root().Write("/home/root/usb_dev/tarvo/luminance_file", "old");
    EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkData, std::string(249, 'u')) +
                          Chunk(kSettingLuminanceFile, kChunkEnd) + Command(kSettingReadLuminance)));
    EXPECT_EQ(port.Take(10), stored);
    EXPECT_EQ(port.Take(253), Le32(249) + std::string(249, 'u'));
    EXPECT_TRUE(board->Record().WaitForCommand(
        "cp /home/root/usb_dev/tarvo/luminance_file /home/root/plexa_data/luminance_file"));
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file"), std::string(249, 'u'));

    EXPECT_TRUE(
        port.Send(Chunk(kSettingBootScreen, kChunkData, "picture") + Chunk(kSettingBootScreen, kChunkEnd)));
    EXPECT_EQ(port.Take(10), TransferEnded(kSettingBootScreen, kStored));
    EXPECT_EQ(board->Root().Read("/boot/disp.bin"), "picture");
    EXPECT_TRUE(port.Send(Command(kSettingClearBootScreen)));
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingClearBootScreen));
    EXPECT_FALSE(board->Root().Exists("/boot/disp.bin"));
    constexpr char kUnknownChunk = 2;
    EXPECT_TRUE(port.Send(Chunk(kSettingBootScreen, kUnknownChunk)));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("1605."));
}

TEST_F(SettingsTest, NameIdentityClockAndPlayerModes)
{
    Boot();
    board->Forget();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(kSettingName, "north gate") + Command(kSettingIdentity) +
                          Command(kSettingIdentity, "K3-7654321098")));
    EXPECT_EQ(board
                  ->Run("touch /home/root/hold; p=$(command -v hwclock); mv $p /home/root/hwclock; printf '"
                        "#!/usr/bin/busybox sh\\nwhile [ -e /home/root/hold ]; do "
                        "/usr/bin/busybox usleep 20000; done\\nexec /home/root/hwclock \"$@\"\\n' > $p; "
                        "chmod 755 $p")
                  .status,
              0);
    const std::string milliseconds = Le32(1716969600) + Le32(399); // low half, high half: in May 2024
    EXPECT_TRUE(port.Send(Command(kSettingSetClock, milliseconds)));
    EXPECT_TRUE(board->Record().WaitForCommand("hwclock -w;"));
    EXPECT_EQ(Count("system(date"), 0U) << "printed when the command has ended";
    board->Run("rm /home/root/hold");
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingSetClock));
    EXPECT_TRUE(board->Record().WaitForLog("system(date -s \"2024-"));
    EXPECT_EQ(board->Root().Read("/usr/share/id/name"), "north gate");
    EXPECT_EQ(board->Root().Read("/usr/share/id/config"), "K3-7654321098");
    const auto calls = board->Record().StandInCalls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(calls[0], (std::vector<std::string>{"date", "-s", calls[0].back()}));
    EXPECT_EQ(calls[1], (std::vector<std::string>{"hwclock", "-w"}));
    EXPECT_TRUE(port.Send(Command(kSettingSlantLine, Le32(1)) + Command(kSettingSlantLine, Le32(2)) +
                          Command(kSettingSmartOff) + Command(kSettingSmartOn) +
                          Command(kSettingProbePlayer)));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerSmartSetting, 2));
    std::string messages;
    for (const board::PlayerMessage &message : board->Player().Messages())
        messages += message.bytes;
    EXPECT_EQ(messages, PlayerMessage(kPlayerSlantLine, 0) + PlayerMessage(kPlayerSmartSetting, 1) +
                            PlayerMessage(kPlayerSmartSetting, 0));
    EXPECT_TRUE(board->Record().WaitForCommand("pidof plexa"));
    EXPECT_TRUE(port.Send(Command(kSettingGetClock)));
    const std::string time = port.Take(14);
    std::int64_t now = 0;
    std::memcpy(&now, time.data() + 6, sizeof now);
    EXPECT_NEAR(static_cast<double>(now), static_cast<double>(std::time(nullptr)) * 1000, 5000);
    board->Forget();
    EXPECT_TRUE(port.Send(Command(kSettingDebug)));
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingDebug));
    EXPECT_TRUE(port.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("execl(\"/home/root/plexa/start_debug.sh\", 0, 0, environ)"));
    EXPECT_TRUE(board->Record().WaitForLog("socket listenning in 8879"));
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>()) << "no probe after a debugging client";
    for (const std::uint32_t code : {std::uint32_t{kSettingUnused}, 29U, 0x80000000U}) {
        const Peer other = Port();
        EXPECT_TRUE(other.Send(Command(code)));
        EXPECT_TRUE(other.Ended()) << code;
    }
}

TEST_F(SettingsTest, ThePlayerChangesSettings)
{
    BootAndForget();
    EXPECT_TRUE(board->Player().Send(kPlayerScreenOnOff, 1) && board->Player().Send(kPlayerScreenOnOff, 0) &&
                board->Player().Send(kPlayerScreenSize, ScreenSize(64, 32)));
    EXPECT_TRUE(board->Player().Send(kPlayerBrightness, 150) && board->Player().Send(kPlayerBrightness, 50) &&
                board->Player().Send(kPlayerBrightness));
    EXPECT_TRUE(board->Record().WaitForLog("(w, h): (64, 32)", 3));
    Pairs frames = {{kFrameBlock, 0},
                    {kFrameBlock, 1},
                    {kIdScreenSize, ScreenSize(64, 32)},
                    {kIdLuminance, 18}};
    Append(&frames, {{kIdMaxLuminance, 150}, {kIdLuminance, 18}});
    Append(&frames, Colours(255));
    Append(&frames, {{kIdMaxLuminance, 50}, {kIdLuminance, 18}});
    Append(&frames, Colours(127));
    ExpectFrames(frames);
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::ScreenOnOff::318---] scrren off"));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::ScreenOnOff::315---] scrren on"));
    EXPECT_TRUE(board->Record().WaitForLog("[---g_serial change screen size: 2097216.---]"));

    // Only screen size and luminance differ: the file counts as unchanged.
    const Peer session = Session();
    Pairs players = Panel();
    SetValue(&players, kIdScreenSize, 1);
    SetValue(&players, kIdLuminance, 2);
    SetValue(&players, kIdCleared, 0);
    SetValue(&players, kIdMaxLuminance, 3);
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    board->Forget();
    EXPECT_TRUE(board->Player().Send(kPlayerUpdateSettingFile));
    EXPECT_TRUE(board->Record().WaitForLog(
        "[---src/server_witch_plexa::UpdateSettingFile::135---] setting.ss file not has "
        "been to update."));
    EXPECT_TRUE(board->Fpga().Frames().empty());
    SetValue(&players, kIdScanRows, 4);
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    EXPECT_TRUE(board->Player().Send(kPlayerUpdateSettingFile));
    EXPECT_TRUE(session.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::UpdateSettingFile::162---] "
                                           "-------------------------------"));
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(players));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    EXPECT_TRUE(board->Fpga().WaitForFrames(2 * Transfer(players).size()))
        << "for the player, then after the logout";

    SetValue(&players, kIdScanRows, 8);
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(kSettingTakePlayerCopy)));
    Settle(port);
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(players));
}

TEST_F(SettingsTest, ARequestOfLength0IsObeyedOnce)
{
    options.player = false;
    BootAndForget();
    Pairs players = Panel();
    players[6].second = 0; // as in the boot copy
    board->Root().Write("/home/root/setting.ss", SettingFile(players));
    const auto player = [&] {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Le32(8) + Le32(3)));
        EXPECT_EQ(peer.Take(4), Le32(8));
        return peer;
    };
    const Peer odd = player();
    EXPECT_TRUE(odd.Send(Le32(0) + Le32(3) + Le32(6)));
    EXPECT_TRUE(board->Record().WaitForLog("UpdateSettingFile::135"));
    EXPECT_TRUE(odd.Send(Le32(12)));
    EXPECT_TRUE(odd.Send(Le32(12)));
    // The requests of all players are carried out in the order in which they came.
    EXPECT_TRUE(player().Send(Le32(16) + Le32(3) + Le32(11) + Le32(0)));
    EXPECT_TRUE(board->Record().WaitForLog("scrren on"));
    EXPECT_EQ(Count("UpdateSettingFile::135"), 1U);
}

TEST_F(SettingsTest, ThePlayersRebootWritesOutFirst)
{
    BootAndForget();
    EXPECT_TRUE(board->Player().Send(13));
    EXPECT_TRUE(board->Record().WaitForCommand("reboot"));
    const std::vector<std::string> commands = board->Record().Commands();
    ASSERT_GE(commands.size(), 2U);
    EXPECT_EQ((std::vector<std::string>{commands[0], commands[1]}),
              (std::vector<std::string>{"sync", "reboot"}));
}

TEST_F(SettingsTest, SessionsCarryTheSamePackets)
{
    BootAndForget();
    const Peer session = Session();
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogIn::2065---] "));
    EXPECT_TRUE(session.Send(Framed(Command(kSettingBrightness, "\x32")) +
                             Framed(FpgaPacket(kIdScanRows, 3)) + Framed(Command(kSettingReadScreen))));
    EXPECT_EQ(session.Take(80).substr(72), Records({{kIdBrightnessPercent, 50}}));
    Pairs frames = Colours(127);
    Append(&frames, {{kIdScanRows, 3}});
    ExpectFrames(frames);
    // The packet's own length is larger than the frame, is 0, is missing; the frame itself is too short.
    const std::string tooLong = std::string{6, kPacketCommand} + Le32(kSettingReadScreen);
    EXPECT_TRUE(session.Send(Framed(tooLong) + Framed(Zeros(2)) + Framed("") + Le32(6) + "xx"));
    EXPECT_TRUE(board->Record().WaitForLog("packet does not fit its frame, dropped.", 4));
    // Bytes after the packet are ignored.
    EXPECT_TRUE(
        session.Send(Framed(Command(kSettingBrightness) + "\x32") + Framed(Command(kSettingReadScreen))));
    EXPECT_EQ(session.Take(80).substr(72), Records({{kIdBrightnessPercent, 100}}));
    EXPECT_TRUE(session.Send(Framed(Command(kSettingUnused)) + Framed(Command(kSettingReadFile)) +
                             Framed(Command(kSettingEnd))));
    const std::string file = board->Root().Read(kWorking);
    EXPECT_EQ(session.Take(16 + file.size()), Records({{kIdBrightnessPercent, 100}}) + file + Zeros(8));
    EXPECT_TRUE(session.Ended());
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    EXPECT_TRUE(board->Fpga().WaitForFrame(kFrameBlock, 1)) << "the settings are sent after the logout";
}

TEST_F(SettingsTest, SignalAppliesSerialIni)
{
    constexpr char kActedOn[] = "-------------------------sig_handle be call--------------------------";
    BootAndForget();
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog(kActedOn));
    // A signal interrupts nothing if the loop does not wait; a second one is lost while the first is pending.
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    std::size_t sent = 1;
    while (Count("select was interrupted.") == 0 && std::chrono::steady_clock::now() < deadline) {
        EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
        EXPECT_TRUE(board->Record().WaitForLog(kActedOn, ++sent));
    }
    EXPECT_GE(Count("select was interrupted."), 1U);
    // Without a screen this one does nothing; when it is handled, all others are.
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR2));
    EXPECT_TRUE(board->Record().WaitForLog(kActedOn, ++sent));
    // Numbers are read at fixed places. The last character is dropped even if it is not the line's end.
    board->Root().Write("/home/root/plexa/serial.ini",
                        "kScreenSize=4194368\nnothing\n# kLuminance=77\nkLuminance=509");
    EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
    EXPECT_TRUE(board->Record().WaitForLog("g_serial_thread write serial, kLuminance=50."));
    EXPECT_TRUE(board->Fpga().WaitForFrame(kIdBlue, 127));
    Pairs frames = {{kIdScreenSize, 4194368}, {kIdLuminance, 18}};
    Append(&frames, {{kIdMaxLuminance, 0}, {kIdLuminance, 18}});
    Append(&frames, Colours(255));
    Append(&frames, {{kIdMaxLuminance, 50}, {kIdLuminance, 18}});
    Append(&frames, Colours(127));
    ExpectFrames(frames);
}
