// SPDX-License-Identifier: MIT
// The firmware service: sessions of sub-type 2.
#include "board_test.h"
#include "firmware_packets.h"

#include <filesystem>
#include <fstream>
#include <iterator>

using namespace std::chrono_literals;

namespace
{

constexpr char kStateFile[] = "/usr/share/info/server_upgrade_state";
constexpr char kArchive[] = "/tmp/QV_Firmware/new_version.gz";

const std::string kPlayerVersion("\1\2\3\4", 4); // 1.2.3.4
const std::string kFpgaVersion("\x07\x08\x09\0", 4);

std::string Reply(const std::string &fields)
{
    return BareFirmwarePacket(kFirmwareCommand, fields);
}

std::string ArchiveReply(std::uint32_t opened)
{
    constexpr std::uint32_t kReplyCode = 0;
    return Reply(Le32(kReplyCode) + Le32(opened) + Le32(opened) + Zeros(252));
}

std::string VersionReply(std::uint32_t state, const std::string &player = kPlayerVersion)
{
    constexpr std::uint32_t kReplyCode = 0;
    return Reply(Le32(kReplyCode) + Le32(state) + player + kFpgaVersion);
}

std::string CompleteReply(std::uint32_t result)
{
    constexpr std::uint32_t kReplyCode = 2;
    return Reply(Le32(kReplyCode) + Le32(result));
}

const std::string kAskVersion = AskVersion();
const std::string kAskArchive = AskArchive(100, 0, 'n');
const std::string kAskArchiveAtNowhere = AskArchive(100, 0xFFFFFFFF);
const std::string kAskComplete = FirmwareCommand(kFirmwareComplete, Zeros(4));
const std::string kAskState = FirmwareCommand(kFirmwareState, "");
const std::string kOpened = ArchiveReply(0xFFFFFFFF);
const std::string kCompleted = CompleteReply(1);

std::string Data(const std::string &bytes)
{
    return FirmwarePacket(kFirmwareData, bytes);
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

    Peer LogIn(char status = kLoginAccepted)
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Login(kFirmware)));
        EXPECT_EQ(peer.Take(8), LoginReply(status));
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
        ASSERT_TRUE(peer.Send(kAskArchive));
        ASSERT_EQ(peer.Take(kArchiveReplySize), kOpened);
        for (std::size_t at = 0; at < archive.size(); at += 9000)
            ASSERT_TRUE(peer.Send(Data(archive.substr(at, 9000))));
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
        {"archive", kAskArchive, kOpened},
        {"archive, seek fails", kAskArchiveAtNowhere, ArchiveReply(0)},
        {"two commands at once", kAskVersion + kAskArchive, VersionReply(0) + kOpened},
        {"archive twice", kAskArchive + kAskArchive, kOpened + kOpened},
        {"version of 24 bytes", FirmwareCommand(kFirmwareVersion, Le32(1) + Zeros(7)), ""},
        {"refused type", AskVersion(0xFFFFFFFF), ""},
        {"archive of 272 bytes", FirmwareCommand(kFirmwareArchive, Zeros(259)), ""},
        {"complete of 18 bytes", FirmwareCommand(kFirmwareComplete, Zeros(5)), ""},
        {"unknown command", FirmwareCommand(4, Zeros(8)), ""},
        {"unknown kind", FirmwarePacket(2, "data"), ""},
        {"data before an archive", Data("data"), ""},
        {"no data", kAskArchive + Data(""), kOpened},
        {"nothing after the framing", Framed("", Le32(0)), ""},
        {"no kind", Framed(Zeros(8), Le32(0)), ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(row.sent));
        EXPECT_EQ(peer.Take(row.reply.size()), row.reply);
        const bool closes = row.reply.empty() || row.name == "no data";
        EXPECT_TRUE(closes ? peer.Ended() : peer.Silent(50));
        EXPECT_EQ(LogIn(closes ? kLoginAccepted : kLoginUpgrading).Ended(50), !closes)
            << "the flag is clear once the session is gone";
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
    constexpr std::uint32_t kReachableOffset = 3;
    const std::string first = AskArchive(100, kReachableOffset);
    {
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(first + Data("abc") + Data("def") + kAskVersion));
        EXPECT_EQ(peer.Take(kArchiveReplySize + kVersionReplySize), kOpened + VersionReply(0));
        EXPECT_EQ(board->Root().Read(kArchive), "abcdef");
    }
    ASSERT_TRUE(board->Record().WaitForLog("LogOut::519---]"));
    board->Root().Write("/home/root/temp/left", "over");
    board->Forget();
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(kAskArchive + kAskVersion));
    EXPECT_EQ(peer.Take(kArchiveReplySize + kVersionReplySize), kOpened + VersionReply(0));
    const std::vector<std::string> commands = {"rm -r /home/root/temp/*",
                                               "rm -rf /tmp/QV_Firmware/*;mkdir /tmp/QV_Firmware"};
    EXPECT_EQ(board->Record().Commands(), commands);
    EXPECT_FALSE(board->Root().Exists("/home/root/temp/left"));
    board->Run("mount -t tmpfs -o size=64k small /tmp/QV_Firmware");
    ASSERT_TRUE(peer.Send(kAskArchive));
    EXPECT_EQ(peer.Take(kArchiveReplySize), kOpened);
    for (int packet = 0; packet < 9; ++packet)
        peer.Send(Data(std::string(8192, 'x')));
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
            EXPECT_EQ(peer.Take(kCompleteReplySize), kCompleted);
            ASSERT_TRUE(peer.Send(kAskComplete)); // a second time: the same again
            EXPECT_EQ(peer.Take(kCompleteReplySize), kCompleted);
            ASSERT_TRUE(peer.Send(kAskState + kAskState));
            EXPECT_EQ(peer.Take(2 * kVersionReplySize), VersionReply(0) + VersionReply(1));
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
    EXPECT_EQ(peer.Take(kCompleteReplySize), kCompleted);
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
    EXPECT_EQ(after.Take(kVersionReplySize), VersionReply(1, "\4\3\2\1"));
}
