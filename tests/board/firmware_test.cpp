// SPDX-License-Identifier: MIT
// The firmware service: sessions of sub-type 2.
#include "board_test.h"
#include "peer.h"

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace std::chrono_literals;

namespace
{

constexpr char kMagic[] = "\x76\x71";
constexpr char kStateFile[] = "/usr/share/info/server_upgrade_state";
constexpr char kArchive[] = "/tmp/QV_Firmware/new_version.gz";

const std::string kPlayer("\x01\x02\x03\x04", 4); // version 1.2.3.4
const std::string kFpga("\x07\x08\x09\0", 4);

// A packet as it stands behind the session's framing.
std::string Packet(std::uint8_t kind, const std::string &tail)
{
    const std::string packet = std::string(kMagic) + Zeros(2) +
                               Le32(static_cast<std::uint32_t>(9 + tail.size())) + static_cast<char>(kind) +
                               tail;
    return Le32(static_cast<std::uint32_t>(8 + packet.size())) + Le32(0xDEADBEEF) + packet;
}

std::string Command(std::uint8_t code, const std::string &fields)
{
    return Packet(0, std::string(1, static_cast<char>(code)) + "xyz" + fields);
}

std::string Reply(const std::string &tail)
{
    return std::string(kMagic) + Zeros(2) + Le32(static_cast<std::uint32_t>(9 + tail.size())) + Zeros(1) +
           tail;
}

const std::string kAskVersion = Command(0, Le32(1) + Zeros(8));
const std::string kAskFile = Command(1, Le32(100) + Le32(0) + std::string(252, 'n'));
const std::string kAskFileAtNowhere = Command(1, Le32(100) + Le32(0xFFFFFFFF) + Zeros(252));
const std::string kAskComplete = Command(2, Zeros(4));
const std::string kAskState = Command(3, "");
const std::string kOpened = Reply(Le32(0) + Le32(0xFFFFFFFF) + Le32(0xFFFFFFFF) + Zeros(252));
const std::string kCompleted = Reply(Le32(2) + Le32(1));

std::string VersionReply(std::uint32_t state, const std::string &player = kPlayer)
{
    return Reply(Le32(0) + Le32(state) + player + kFpga);
}

std::string ReadText(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Firmware : public BoardTest
{
protected:
    void SetUp() override
    {
        options.files["/home/root/plexa/version"] = "1.2.3.4\n";
        options.files["/boot/fpga.img"] = std::string("\x55\x07\x08\x09 image", 10);
    }

    Peer LogIn(std::uint8_t status = 1)
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Le32(8) + Le32(2)));
        EXPECT_EQ(peer.Take(8), Le32(8) + Le32(status));
        return peer;
    }

    // A gzip-compressed tar with the script as "update.sh" at its top, and the daemon beside it.
    std::string MakeArchive(const std::string &script)
    {
        board->Root().Write("/home/root/new/update.sh", script, 0644);
        board->Root().CopyIn(options.daemon, "/home/root/new/ledboardd");
        EXPECT_EQ(board->Run("cd /home/root/new && tar -czf ../new.gz update.sh ledboardd").status, 0);
        return board->Root().Read("/home/root/new.gz");
    }

    static void Upload(const Peer &peer, const std::string &archive)
    {
        ASSERT_TRUE(peer.Send(kAskFile));
        ASSERT_EQ(peer.Take(273), kOpened);
        for (std::size_t at = 0; at < archive.size(); at += 9000)
            ASSERT_TRUE(peer.Send(Packet(1, archive.substr(at, 9000))));
    }
};

} // namespace

TEST_F(Firmware, AnswersAndRefusals)
{
    options.files[kStateFile] = "failed";
    Boot();
    const struct {
        std::string name;
        std::string sent;
        std::string reply; // empty: the session is closed without one
    } rows[] = {
        {"version", kAskVersion, VersionReply(0)},
        {"state, failed", kAskState, VersionReply(0)},
        {"state, asked again", kAskState, VersionReply(1)},
        {"archive", kAskFile, kOpened},
        {"archive, seek fails", kAskFileAtNowhere, Reply(Zeros(264))},
        {"two commands at once", kAskVersion + kAskFile, VersionReply(0) + kOpened},
        {"archive twice", kAskFile + kAskFile, kOpened + kOpened},
        {"version of 24 bytes", Command(0, Le32(1) + Zeros(7)), ""},
        {"refused type", Command(0, Le32(0xFFFFFFFF) + Zeros(8)), ""},
        {"archive of 272 bytes", Command(1, Zeros(259)), ""},
        {"complete of 18 bytes", Command(2, Zeros(5)), ""},
        {"unknown command", Command(4, Zeros(8)), ""},
        {"unknown kind", Packet(2, "data"), ""},
        {"data before an archive", Packet(1, "data"), ""},
        {"no data", kAskFile + Packet(1, ""), kOpened},
        {"nothing behind the framing", Le32(8) + Le32(0), ""},
        {"no kind", Le32(16) + Le32(0) + Zeros(8), ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(row.sent));
        EXPECT_EQ(peer.Take(row.reply.size()), row.reply);
        const bool closes = row.reply.empty() || row.name == "no data";
        EXPECT_TRUE(closes ? peer.Ended() : peer.Silent(50));
        EXPECT_EQ(LogIn(closes ? 1 : 2).Ended(50), !closes) << "the flag is clear once the session is gone";
    }
    EXPECT_FALSE(board->Root().Exists(kStateFile));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/version_thread.cpp::LogIn::512---]"));
    EXPECT_TRUE(board->Record().WaitForLog(
        "[---src/version_thread.cpp::DisposePacket::503---] upgrade dispose packet error"));
    EXPECT_TRUE(board->Record().WaitForLog(
        "[---src/version_thread.cpp::DisposePaket::245---] ------------------------------error---"));
    EXPECT_TRUE(board->Record().WaitForLog("fseek new_version.gz fail, filesize: 0. errno: 22"));
}

TEST_F(Firmware, ArchiveIsWrittenFromItsStartAndAFullDiskIsAnError)
{
    Boot();
    const std::string first = Command(1, Le32(100) + Le32(3) + Zeros(252)); // an offset that can be reached
    {
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(first + Packet(1, "abc") + Packet(1, "def") + kAskVersion));
        EXPECT_EQ(peer.Take(273 + 25), kOpened + VersionReply(0));
        EXPECT_EQ(board->Root().Read(kArchive), "abcdef");
    }
    ASSERT_TRUE(board->Record().WaitForLog("LogOut::519---]"));
    board->Root().Write("/home/root/temp/left", "over");
    board->Forget();
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(kAskFile + kAskVersion));
    EXPECT_EQ(peer.Take(273 + 25), kOpened + VersionReply(0));
    const std::vector<std::string> commands = {"rm -r /home/root/temp/*",
                                               "rm -rf /tmp/QV_Firmware/*;mkdir /tmp/QV_Firmware"};
    EXPECT_EQ(board->Record().Commands(), commands);
    EXPECT_FALSE(board->Root().Exists("/home/root/temp/left"));
    board->Run("mount -t tmpfs -o size=64k small /tmp/QV_Firmware");
    ASSERT_TRUE(peer.Send(kAskFile));
    EXPECT_EQ(peer.Take(273), kOpened);
    for (int packet = 0; packet < 9; ++packet)
        peer.Send(Packet(1, std::string(8192, 'x')));
    EXPECT_TRUE(peer.Ended());
}

TEST_F(Firmware, BrokenArchiveLeavesTheDaemonRunning)
{
    Boot();
    const std::string noScript = [this] {
        board->Run(
            "mkdir /home/root/empty && cd /home/root/empty && touch other && tar -czf ../empty.gz other");
        return board->Root().Read("/home/root/empty.gz");
    }();
    const std::string archive = MakeArchive("#!/bin/sh\nexit 0\n");
    const pid_t daemon = board->Daemon().Pid();
    for (const std::string &broken :
         {noScript, archive.substr(0, archive.size() / 2), std::string("no gzip")}) {
        {
            const Peer peer = LogIn();
            Upload(peer, broken);
            ASSERT_TRUE(peer.Send(kAskComplete));
            EXPECT_EQ(peer.Take(17), kCompleted);
            ASSERT_TRUE(peer.Send(kAskComplete)); // a second time: the same again
            EXPECT_EQ(peer.Take(17), kCompleted);
            ASSERT_TRUE(peer.Send(kAskState + kAskState));
            EXPECT_EQ(peer.Take(50), VersionReply(0) + VersionReply(1));
        }
        EXPECT_EQ(board->Daemon().Pid(), daemon);
        EXPECT_TRUE(board->Record().WaitForLog("LogOut::519---]"));
        board->Forget();
    }
}

TEST_F(Firmware, InstallScriptReplacesTheDaemon)
{
    Boot();
    const std::string archive = MakeArchive("ls -l /proc/self/fd > /home/root/descriptors\n"
                                            "grep Sig /proc/self/status > /home/root/signals\n"
                                            "pwd > /home/root/folder\n"
                                            "cat /proc/$PPID/comm >> /home/root/folder\n"
                                            "cp /tmp/QV_Firmware/bin/ledboardd /usr/bin/ledboardd.new &&\n"
                                            "mv /usr/bin/ledboardd.new /usr/bin/ledboardd\n"
                                            "mkdir -p /usr/share/info\n"
                                            "echo 4.3.2.1 > /home/root/plexa/version\n"
                                            "reboot\n");
    const Peer peer = LogIn();
    const Peer other = Peer::Connect(board->Network().BoardAddress(), 8870);
    board->Forget();
    Upload(peer, archive);
    ASSERT_TRUE(peer.Send(kAskComplete));
    EXPECT_EQ(peer.Take(17), kCompleted);
    EXPECT_TRUE(peer.Ended());
    EXPECT_TRUE(other.Ended());
    ASSERT_TRUE(board->WaitFor([this] { return board->Boots() == 2 && board->Daemon().Listens(); }, 10s));

    const std::vector<std::string> commands =
        {"rm -r /home/root/temp/*",
         "rm -rf /tmp/QV_Firmware/*;mkdir /tmp/QV_Firmware",
         "mkdir /tmp/QV_Firmware/bin",
         "tar -zxvf /tmp/QV_Firmware/new_version.gz -C /tmp/QV_Firmware/bin 1>&/dev/null 2>&1",
         "cd /tmp/QV_Firmware/bin",
         "chmod u+x /tmp/QV_Firmware/bin/update.sh",
         "/tmp/QV_Firmware/bin/update.sh",
         "reboot"};
    std::vector<std::string> seen = board->Record().Commands();
    seen.resize(std::min(seen.size(), commands.size() - 1));
    EXPECT_EQ(seen, std::vector<std::string>(commands.begin(), commands.end() - 1));

    const std::string descriptors = board->Root().Read("/home/root/descriptors");
    EXPECT_EQ(std::count(descriptors.begin(), descriptors.end(), '>'), 3) << descriptors;
    const std::string signals = board->Root().Read("/home/root/signals");
    EXPECT_NE(signals.find("SigBlk:\t0000000000000000"), std::string::npos) << signals;
    const std::size_t ignored = signals.find("SigIgn:\t"); // of which the shell itself adds SIGQUIT
    ASSERT_NE(ignored, std::string::npos);
    EXPECT_EQ(std::stoull(signals.substr(ignored + 8, 16), nullptr, 16) & ~4ULL, 0U) << signals;
    EXPECT_NE(board->Root().Read("/home/root/folder"), "/tmp/QV_Firmware/bin\n") << "cd changed nothing";
    EXPECT_EQ(board->Root().Read("/usr/bin/ledboardd"), ReadText(options.daemon));

    const Peer after = LogIn();
    ASSERT_TRUE(after.Send(kAskState));
    EXPECT_EQ(after.Take(25), VersionReply(1, "\4\3\2\1"));
}
