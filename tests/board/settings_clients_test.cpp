// SPDX-License-Identifier: MIT
// What the setting service survives: clients that vanish, stall, connect twice or all at once; a serial line
// that is lost; a full disk.
#include "common/unique_fd.h"
#include "player_codes.h"
#include "settings_peer.h"
#include "udp_peer.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <thread>

using namespace std::chrono_literals;

namespace
{

class SettingClients : public SettingsTest
{
protected:
    static constexpr const char *kLuminance = "/home/root/plexa_data/luminance_file";
    static constexpr const char *kPicture = "/boot/disp.bin";

    static std::string Chunks(std::size_t size, char letter)
    {
        std::string chunks;
        for (std::size_t done = 0; done < size; done += 249)
            chunks += Chunk(kSettingLuminanceFile, kChunkData,
                            std::string(std::min<std::size_t>(249, size - done), letter));
        return chunks;
    }
    void FillDisk() { board->Run("dd if=/dev/zero of=/home/root/plexa_data/fill bs=4096"); }
    void EmptyDisk() { board->Run("rm /home/root/plexa_data/fill"); }
    // From now on this command of the board does not end before Release().
    void Hold(const std::string &command)
    {
        EXPECT_EQ(board
                      ->Run("touch /home/root/hold; p=$(command -v " + command + "); rm $p; printf '" +
                            "#!/usr/bin/busybox sh\\nwhile [ -e /home/root/hold ]; do " +
                            "/usr/bin/busybox usleep 20000; done\\n' > $p; chmod 755 $p")
                      .status,
                  0);
    }
    void Release() { board->Run("rm /home/root/hold"); }
};

} // namespace

TEST_F(SettingClients, VanishAndTheServiceListensAgain)
{
    options.files[kWorking] = SettingFile(Panel());
    Boot();
    struct Row {
        std::string bytes;
        bool reset;
        std::string line;
        std::size_t frames;
    };
    const Row rows[] = {
        {"", false, "readeds: 0. 0, 946", 1},
        {"", true, "readeds: 0. -1, 946", 1},
        {Command(kSettingStart) + Packet(kPacketData, "staged, never saved"), false, "readeds: 0. 0, 946", 1},
        {Command(kSettingStart) + Packet(kPacketData, "staged").substr(0, 5), false, "988, error!", 1},
        {Command(kSettingGetClock).substr(0, 2), false, "exit.", 0},
        {Zeros(1), false, "pidof", 0}, // its length of 0 ends the connection
        {Chunk(kSettingLuminanceFile, kChunkData, "unfinished"), false, "readeds: 0. 0, 946", 1},
    };
    const std::size_t descriptors = SettledDescriptors(*board);
    EXPECT_TRUE(board->Fpga().WaitForFrames(Transfer(Panel()).size()));
    for (const Row &row : rows) {
        board->Forget();
        {
            const Peer port = Port();
            EXPECT_TRUE(row.bytes.empty() || port.Send(row.bytes));
            EXPECT_TRUE(board->Record().WaitForLog("one thread be recv"));
            EXPECT_TRUE(row.bytes.find('\1') == std::string::npos ||
                        board->Record().WaitForLog("cmd: start."));
            const linger value{.l_onoff = row.reset ? 1 : 0, .l_linger = 0};
            setsockopt(port.Get(), SOL_SOCKET, SO_LINGER, &value, sizeof value);
        }
        EXPECT_TRUE(board->Record().WaitForLog("wait accept one client.")) << row.line;
        EXPECT_TRUE(row.line == "pidof" ? board->Record().WaitForCommand("pidof plexa")
                                        : board->Record().WaitForLog(row.line));
        ExpectFrames(Pairs(row.frames, {kFrameTransfer, 0}));
    }
    EXPECT_EQ(board->Root().Read(kWorking), SettingFile(Panel()));
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(port.Take(10).substr(6), Le32(kNotStored)) << "the unfinished file is gone with its client";
    EXPECT_TRUE(port.Send(Command(kSettingNotSave)));
    End(port);
    EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == descriptors; }));
}

TEST_F(SettingClients, OneAtATimeHoweverSlow)
{
    Boot();
    const Peer first = Port();
    EXPECT_TRUE(board->Record().WaitForLog("close listenning socket"));
    EXPECT_FALSE(Peer::Connect(board->Network().BoardAddress(), 8879).Connected());
    const std::string bytes = Command(kSettingGetClock);
    EXPECT_TRUE(board->Record().WaitForLog("select continue."));
    EXPECT_TRUE(first.Send(bytes.substr(0, 1)));
    EXPECT_TRUE(board->Record().WaitForLog("select continue.", 2));
    EXPECT_TRUE(first.Send(bytes.substr(1, 3)));
    EXPECT_TRUE(board->Record().WaitForLog("select continue.", 3));
    EXPECT_FALSE(Peer::Connect(board->Network().BoardAddress(), 8879).Connected());
    EXPECT_TRUE(first.Send(bytes.substr(4)));
    EXPECT_EQ(first.Take(14).size(), 14U);
    End(first);
    End(Port());
}

TEST_F(SettingClients, PortThatIsTakenIsTriedAgain)
{
    options.startDaemon = false;
    Boot();
    ledboard::UniqueFd squatter(board->Network().Socket(AF_INET, SOCK_STREAM));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(8879);
    ASSERT_EQ(bind(squatter.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
    ASSERT_EQ(listen(squatter.Get(), 1), 0);
    board->Daemon().Start();
    EXPECT_TRUE(board->Record().WaitForLog("tcp socket bind in 8879 fail. errno: 98.", 2));
    squatter.Reset();
    End(Port());
}

TEST_F(SettingClients, StreamsReachSlowReadersWhole)
{
    std::string file(9'000'000, '\0');
    for (std::size_t index = 0; index < file.size(); ++index)
        file[index] = static_cast<char>(index * 7 ^ index >> 11);
    options.files["/home/root/plexa_data/luminance_file"] = file;
    Boot();
    const Peer slow = Port();
    const int room = 4096;
    setsockopt(slow.Get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    EXPECT_TRUE(slow.Send(Command(kSettingReadLuminance)));
    // More than the five seconds that a peer may take without a byte, while the buffers on the
    // way are full.
    std::string taken;
    for (int part = 0; part < 4; ++part) {
        taken += slow.Take(500'000);
        std::this_thread::sleep_for(1500ms);
    }
    taken += slow.Take(4 + file.size() - taken.size());
    EXPECT_TRUE(taken == Le32(9'000'000) + file);
    End(slow);

    // A client that reads nothing is dropped, on the port and in a session; nobody else waits for long.
    const Peer dead = Port();
    EXPECT_TRUE(dead.Send(Command(kSettingReadLuminance)));
    const Peer session = Session();
    EXPECT_TRUE(session.Send(Framed(Command(kSettingReadLuminance)) + Framed(Command(kSettingReadLuminance)) +
                             Framed(Command(kSettingReadLuminance))));
    EXPECT_TRUE(board->Record().WaitForLog("session does not take its answer, closed.", 1, 8s));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    EXPECT_TRUE(board->Record().WaitForLog("wait accept one client.", 3, 15s));
    EXPECT_EQ(Count("session does not take its answer, closed."), 1U)
        << "each of them has its own two seconds";
    End(Port());
}

TEST_F(SettingClients, SerialLineGoesAndComesBack)
{
    Boot();
    const Peer port = Port();
    board->Fpga().Connect(false);
    for (int count = 0; count < 5; ++count)
        EXPECT_TRUE(port.Send(FpgaPacket(kIdScanRows, 1)));
    Settle(port);
    EXPECT_TRUE(board->Record().WaitForLog("serial writed: ", 5));
    EXPECT_EQ(Count("serial line lost."), 1U);
    EXPECT_EQ(Count("serial write -1"), 0U);
    board->Fpga().Connect(true);
    board->Forget();
    EXPECT_TRUE(board->WaitFor([&] {
        EXPECT_TRUE(port.Send(FpgaPacket(kIdScanRows, 2)));
        Settle(port);
        return !board->Fpga().Frames().empty();
    }));
    EXPECT_TRUE(board->Fpga().WaitForFrame(kIdScanRows, 2));
    EXPECT_TRUE(board->Record().WaitForLog("serial line is back."));
    EXPECT_EQ(Count("serial line is back."), 1U);
    const termios line = board->Fpga().Attributes();
    EXPECT_EQ(cfgetospeed(&line), static_cast<speed_t>(B115200));
}

TEST_F(SettingClients, FullDiskIsReportedToTheSender)
{
    options.dataMebibytes = 1;
    Boot();
    board->Run("dd if=/dev/zero of=/home/root/plexa_data/fill bs=4096");
    const Peer port = Port();
    const std::string chunk = Chunk(kSettingLuminanceFile, kChunkData, std::string(249, 'x'));
    std::string chunks;
    for (int count = 0; count < 64; ++count)
        chunks += chunk;
    port.Send(chunks);
    char byte;
    EXPECT_TRUE(board->Record().WaitForLog("write of command 14:  No space left on device"));
    EXPECT_LE(recv(port.Get(), &byte, 1, 0), 0);
    const Peer other = Port();
    EXPECT_TRUE(other.Send(Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(other.Take(10).substr(6), Le32(kNotStored));

    // A session goes on: no later chunk begins the file again, and the answer to its end reports the failure.
    const Peer session = Session();
    for (int count = 0; count < 64; ++count)
        EXPECT_TRUE(session.Send(Framed(chunk)));
    EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkEnd))));
    EXPECT_EQ(session.Take(10).substr(6), Le32(kNotStored));
    board->Run("rm /home/root/plexa_data/fill");
    EXPECT_TRUE(session.Send(Framed(chunk) + Framed(Chunk(kSettingLuminanceFile, kChunkEnd))));
    EXPECT_EQ(session.Take(10).substr(6), Le32(kStored));
    // An empty packet does not change the file.
    EXPECT_TRUE(session.Send(Framed(Command(kSettingLuminanceFile))));
    EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkEnd))));
    EXPECT_EQ(session.Take(10).substr(6), Le32(kNotStored));
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file").size(), 249U);
}

TEST_F(SettingClients, AFailedTransferIsThatOfItsClient)
{
    options.dataMebibytes = 1;
    Boot();
    FillDisk();
    const Peer session = Session();
    for (int count = 0; count < 64; ++count)
        EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkData, std::string(249, 'x')))));
    EXPECT_TRUE(board->Record().WaitForLog("write of command 14:  No space left on device"));
    EmptyDisk();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkData, "of another") +
                          Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(port.Take(10), TransferEnded(kSettingLuminanceFile, 1));
    EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkData, "with a hole")) +
                             Framed(Chunk(kSettingLuminanceFile, kChunkEnd))));
    EXPECT_EQ(session.Take(10), TransferEnded(kSettingLuminanceFile, 0))
        << "there is room again, but a chunk is missing";
    EXPECT_EQ(board->Root().Read(kLuminance), "of another");
    EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkData, "whole")) +
                             Framed(Chunk(kSettingLuminanceFile, kChunkEnd))));
    EXPECT_EQ(session.Take(10), TransferEnded(kSettingLuminanceFile, 1));
    EXPECT_EQ(board->Root().Read(kLuminance), "whole");

    // A file that cannot be opened says so at every chunk.
    board->Run("rm -r /boot/disp.bin*; mkdir /boot/disp.bin.new");
    EXPECT_TRUE(session.Send(Framed(Chunk(kSettingBootScreen, kChunkData, "1")) +
                             Framed(Chunk(kSettingBootScreen, kChunkData, "2")) +
                             Framed(Chunk(kSettingBootScreen, kChunkEnd))));
    EXPECT_EQ(session.Take(10), TransferEnded(kSettingBootScreen, 0));
    EXPECT_TRUE(board->Record().WaitForLog("1577.", 2));
}

TEST_F(SettingClients, ABrokenTransferKeepsTheOldFile)
{
    options.dataMebibytes = 1;
    Boot();
    board->Root().Write(kLuminance, "old luminance");
    board->Root().Write(kPicture, "old picture");
    {
        const Peer port = Port();
        EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkData, "half") +
                              Chunk(kSettingBootScreen, kChunkData, "half") +
                              Command(kSettingReadLuminance)));
        EXPECT_EQ(port.Take(4 + 13), Le32(13) + "old luminance");
    }
    EXPECT_TRUE(board->Record().WaitForLog("wait accept one client.", 2));
    {
        const Peer session = Session();
        EXPECT_TRUE(session.Send(Framed(Chunk(kSettingLuminanceFile, kChunkData, "half")) +
                                 Framed(Command(kSettingReadLuminance))));
        EXPECT_EQ(session.Take(4 + 13), Le32(13) + "old luminance");
    }
    EXPECT_TRUE(board->Record().WaitForLog("[---src/serial_thread::LogOut::2072---] "));
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Chunk(kSettingLuminanceFile, kChunkEnd) + Chunk(kSettingBootScreen, kChunkEnd)));
    EXPECT_EQ(port.Take(20), TransferEnded(kSettingLuminanceFile, 0) + TransferEnded(kSettingBootScreen, 0))
        << "each went with its client";
    FillDisk();
    EXPECT_TRUE(port.Send(Chunks(16'000, 'x')));
    EXPECT_TRUE(board->Record().WaitForLog("write of command 14:  No space left on device"));
    EXPECT_TRUE(board->Record().WaitForLog("wait accept one client.", 3));
    EXPECT_EQ(board->Root().Read(kLuminance), "old luminance");
    EXPECT_EQ(board->Root().Read(kPicture), "old picture");
    EmptyDisk();

    // The disk holds one of them, not both.
    const Peer other = Port();
    EXPECT_TRUE(other.Send(Chunks(600'000, 'a') + Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(other.Take(10), TransferEnded(kSettingLuminanceFile, 1));
    EXPECT_TRUE(other.Send(Chunks(600'000, 'b') + Chunk(kSettingLuminanceFile, kChunkEnd)));
    EXPECT_EQ(other.Take(10), TransferEnded(kSettingLuminanceFile, 1));
    EXPECT_TRUE(board->Root().Read(kLuminance) == std::string(600'000, 'b'));
    EXPECT_EQ(board->Run("ls /home/root/plexa_data /boot | grep -e '[.]new' -e '[.]copy'").output, "");
}

TEST_F(SettingClients, ACutCopyFromTheUsbDiskIsMadeGoodAtTheNextStart)
{
    options.startDaemon = false;
    Boot();
    board->Root().Write(kLuminance, "half");
    board->Root().Write(std::string(kLuminance) + ".copy", "the whole file");
    board->Daemon().Start();
    EXPECT_TRUE(board->Record().WaitForLog("serial_thread init success."));
    EXPECT_EQ(board->Root().Read(kLuminance), "the whole file");
    EXPECT_FALSE(board->Root().Exists(std::string(kLuminance) + ".copy"));
}

TEST_F(SettingClients, ThePlayerDoesNotWaitForAnothersSync)
{
    BootAndForget();
    Hold("sync");
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(1) + Packet(2, SettingFile(Panel())) + Command(5)));
    EXPECT_TRUE(board->Record().WaitForCommand("sync"));
    EXPECT_TRUE(board->Player().Send(5, 50) && board->Player().Send(11, 1) && board->Player().Send(5, 20) &&
                board->Player().Send(13));
    for (int search = 0; search < 2; ++search)
        EXPECT_TRUE(UdpPeer().Ask(SearchBytes(), board->Network().BoardAddress()).has_value())
            << "the loop goes on";
    EXPECT_EQ(board->Fpga().Frames().size(), 0U) << "the requests wait";
    const unsigned boots = board->Boots();
    Release();
    EXPECT_TRUE(board->WaitFor([&] { return board->Boots() > boots; }));
    const Pairs frames = Frames();
    const Pairs expected = {{254, 50}, {9, 20}, {28, 127}, {29, 127}, {30, 127}, {2, 0},
                            {254, 20}, {9, 20}, {28, 51},  {29, 51},  {30, 51}};
    EXPECT_NE(std::search(frames.begin(), frames.end(), expected.begin(), expected.end()), frames.end());
}

TEST_F(SettingClients, APulledCableIsNoticedOnThePort)
{
    Boot();
    const Peer port = Port();
    Settle(port);
    // Established, port 8879, the timer of the probes runs, and the first one is due in at most 30 seconds.
    const std::string row =
        board->Run("grep -E '^ *[0-9]+: [0-9A-F]+:22AF [0-9A-F:]+ 01 ' /proc/net/tcp").output;
    const std::size_t timer = row.find(" 02:");
    ASSERT_NE(timer, std::string::npos) << row;
    EXPECT_LE(std::stoul(row.substr(timer + 4, 8), nullptr, 16), 3000U) << row;
}

TEST_F(SettingClients, PortSessionPlayerAndSignalAtOnce)
{
    options.files[kWorking] = SettingFile(Panel());
    options.files["/home/root/plexa/serial.ini"] = "kScreenSize=4194368\nkLuminance=40\n";
    Boot();
    ASSERT_TRUE(WaitForBootCopy());
    constexpr int kRounds = 12;
    std::atomic<bool> done = false;
    std::jthread reader([&] { // the boot copy is replaced as a whole
        while (!done) {
            std::ifstream boot(board->Root().Folder() + kBoot, std::ios::binary);
            const std::string bytes{std::istreambuf_iterator<char>(boot), {}};
            EXPECT_EQ(bytes.size(), 8 + 8 * Panel().size());
        }
    });
    {
        std::jthread onPort([&] {
            for (int round = 0; round < kRounds; ++round) {
                const Peer port = Port();
                EXPECT_TRUE(port.Send(Command(kSettingKeepFrames) + FpgaPacket(kIdScanRows, 8) +
                                      FpgaPacket(kIdScreenSize, 128) + Command(kSettingDropFrames) +
                                      Command(kSettingReadFile)));
                EXPECT_EQ(port.Take(24 + 8 * Panel().size()).size(), 24 + 8 * Panel().size());
                EXPECT_TRUE(
                    port.Send(Command(kSettingWriteSchedule, Schedule({})) + Command(kSettingSmartOn)));
                EXPECT_EQ(port.Take(6), Acknowledged(kSettingWriteSchedule));
                End(port);
            }
        });
        std::jthread onSession([&] {
            for (int round = 0; round < kRounds; ++round) {
                const Peer session = Session();
                EXPECT_TRUE(session.Send(Framed(Command(kSettingSendToFpga)) +
                                         Framed(Command(kSettingBrightness, "\x14")) +
                                         Framed(Command(kSettingReadScreen))));
                EXPECT_EQ(session.Take(80).size(), 80U);
                EXPECT_TRUE(session.Send(Framed(Command(kSettingSmartOff)) + Framed(Command(kSettingEnd))));
                EXPECT_TRUE(session.Ended());
            }
        });
        for (int round = 0; round < kRounds; ++round) {
            EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
            EXPECT_TRUE(board->Player().Send(kPlayerBrightness, 60) &&
                        board->Player().Send(kPlayerScreenSize, ScreenSize(64, 64)));
            EXPECT_TRUE(board->Record().WaitForLog("g_serial change screen size",
                                                   static_cast<std::size_t>(round) + 1, 20s));
        }
    }
    done = true;
    EXPECT_TRUE(board->Record().WaitForLog("g_serial_thread write serial, kLuminance=40.", 1, 20s));
    EXPECT_TRUE(board->Daemon().Running());
    EXPECT_EQ(board->Fpga().StrayBytes(), 0U);
    EXPECT_EQ(board->Root().Read(kWorking).size(), 8 + 8 * Panel().size());
}
