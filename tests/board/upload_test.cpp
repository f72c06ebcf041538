// SPDX-License-Identifier: MIT
// The upload service: sessions of sub-type 0, byte by byte.
#include "board_test.h"
#include "player_codes.h"
#include "udp_peer.h"

#include <algorithm>

using namespace std::string_literals;

namespace
{

constexpr char kFolder[] = "/home/root/plexa_data/factory";

enum PacketType : char { kFileData = 0, kCommand = 1 };

enum UploadCode : char {
    kUploadRequest = 3,
    kUploadAnswer = 4,
    kUploadAskReady = 5,
    kUploadAnswerReady = 6,
    kUploadAnswerRetrans = 7,
    kUploadAskComplete = 9,
    kUploadAnswerComplete = 10,
    kUploadAskRetrans = 11,
    kUploadAskDisconnect = 12,
    kUploadAnswerDisconnect = 13,
    kUploadFileBegin = 21,
    kUploadFileEnd = 22,
    kUploadVideoStart = 23,
    kUploadVideoList = 24,
    kUploadVideoEnd = 25,
    kUploadAnswerVideoList = 26,
};

// A packet without the session's framing, which replies do not have.
std::string Packet(char type, const std::string &tail)
{
    constexpr std::uint16_t kVersion = 0x0100;
    return ProtocolHeader(kVersion, kHeaderSize + tail.size(), type) + tail;
}

std::string Command(char code, const std::string &payload = "")
{
    return Framed(Packet(kCommand, code + payload), Le32(0xDEADBEEF));
}

std::string Begin(const std::string &name)
{
    return Command(kUploadFileBegin, name + '\0');
}

std::string Data(const std::string &bytes)
{
    const std::string unread = "\xff\xff\xff\xff";
    return Framed(Packet(kFileData, unread + bytes), Le32(0xDEADBEEF));
}

const std::string kFileEnd = Command(kUploadFileEnd);
const std::string kComplete = Command(kUploadAskComplete);

std::string Result(char code, char result)
{
    return Packet(kCommand, std::string{code, result});
}

std::string VideoList(const std::string &names)
{
    return Packet(kCommand, static_cast<char>(kUploadAnswerVideoList) + names);
}

class Upload : public BoardTest
{
protected:
    Peer LogIn(char status = kLoginAccepted)
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Login(kUpload)));
        EXPECT_EQ(peer.Take(8), LoginReply(status));
        return peer;
    }
    static void Ask(const Peer &peer, const std::string &request, const std::string &reply)
    {
        ASSERT_TRUE(peer.Send(request));
        ASSERT_EQ(peer.Take(reply.size()), reply);
    }
    // The board has handled everything sent so far.
    static void Settle(const Peer &peer)
    {
        Ask(peer, Command(kUploadAskReady), Result(kUploadAnswerReady, 1));
    }

    std::string Content(const std::string &name)
    {
        return board->Root().TryRead(kFolder + ("/" + name)).value_or("(missing)");
    }
    // Names below the folder, one a line.
    std::string List(const std::string &folder = kFolder)
    {
        return board->Run("cd " + folder + " 2>/dev/null && find . ! -name . | sort").output;
    }
    long Ran(const std::string &command)
    {
        const std::vector<std::string> commands = board->Record().Commands();
        return std::count(commands.begin(), commands.end(), command);
    }
    bool Logged(const std::string &line)
    {
        return board->WaitFor([&] {
            const std::vector<std::string> lines = board->Record().Log();
            return std::find(lines.begin(), lines.end(), line) != lines.end();
        });
    }
};

} // namespace

TEST_F(Upload, AProgramArrivesAndThePlayerIsNotified)
{
    options.files["/boot/disp.bin"] = "picture";
    Boot();
    {
        const Peer peer = LogIn();
        Settle(peer);
        EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvProgram));
        EXPECT_FALSE(board->Root().Exists("/boot/disp.bin"));
        const std::string identifier = "identifier.16.by";
        const std::string value = Le32(5), flag = "\1", number = Le16(2), total = Le32(0);
        Ask(peer, Command(kUploadRequest, identifier + value + flag + number + total + "a\0b\0c\0"s),
            Result(kUploadAnswer, 1));
        const std::string received = Le32(0);
        Ask(peer, Command(kUploadAskRetrans),
            Packet(kCommand, static_cast<char>(kUploadAnswerRetrans) + identifier + Zeros(1) + received));
        const std::string packet(9189, 'x'); // makes a frame of 9216 bytes
        ASSERT_TRUE(peer.Send(Begin("media/deep/a.bin") + Data(packet) + Data("") + Data(packet) +
                              Data("end") + kFileEnd));
        ASSERT_TRUE(peer.Send(Begin(std::string(250, 'n')) + Data("cut") + kFileEnd + Begin("\xe9 $(x).mp4") +
                              kFileEnd));
        Settle(peer);
        EXPECT_EQ(Content("media/deep/a.bin"), packet + packet + "end");
        EXPECT_EQ(Content(std::string(200, 'n')), "cut");
        EXPECT_EQ(Content("\xe9 $(x).mp4"), "");
        const long syncs = Ran("sync"); // the settings' at boot
        Ask(peer, kComplete, Result(kUploadAnswerComplete, 1));
        EXPECT_EQ(Ran("sync"), syncs + 1);
        Ask(peer, Command(kUploadAskDisconnect), Result(kUploadAnswerDisconnect, 0));
        EXPECT_EQ(board->Player().Messages().size(), 1U);
    }
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));
    EXPECT_EQ(Content("media/deep/a.bin").size(), 18381U);
    for (const char *const line :
         {"[---src/work_thread.cpp::LogIn::2276---] ", "[---src/work_thread.cpp::LogIn::2333---] ",
          "send message to plexa, SS_CMD_RECV_PROGRAM: 1", "work_thread.cpp, type: 3", "recv file ok.",
          "[---src/work_thread.cpp::LogOut::2340---] ", "[---src/work_thread.cpp::LogOut::2364---] "})
        EXPECT_TRUE(Logged(line)) << line;
    EXPECT_TRUE(board->Record().WaitForLog("send message to plexa, SS_CMD_RECV_END: 2"));
}

TEST_F(Upload, WhatIsNotCompleteIsRemoved)
{
    Boot();
    const std::string remove = "rm -r /home/root/plexa_data/factory/*";
    const struct {
        const char *name;
        std::function<void(Peer &)> end;
        bool removed;
    } rows[] = {
        {"connection closed", [](Peer &peer) { peer = Peer(); }, true},
        {"begun again",
         [](Peer &peer) {
             Ask(peer, kComplete + Command(kUploadRequest),
                 Result(kUploadAnswerComplete, 1) + Result(kUploadAnswer, 1));
             peer = Peer();
         },
         true},
        {"cable pulled", [&](Peer &) { board->Network().Cable(false); }, true},
        {"daemon killed", [&](Peer &) { board->Daemon().Kill(); }, false},
        {"complete",
         [](Peer &peer) {
             Ask(peer, kComplete, Result(kUploadAnswerComplete, 1));
             peer = Peer();
         },
         false},
    };
    for (const auto &row : rows) {
        board->Forget();
        Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin("a") + Data("half")));
        Settle(peer);
        EXPECT_EQ(Content("a"), "half");
        row.end(peer);
        if (board->Daemon().Running())
            EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd)) << row.name;
        else
            board->Daemon().Restart();
        EXPECT_EQ(Ran(remove) > 0, row.removed) << row.name;
        EXPECT_EQ(Content("a"), row.removed ? "(missing)" : "half") << row.name;
        board->Network().Cable(true);
        ASSERT_TRUE(
            board->WaitFor([&] { return Peer::Connect(board->Network().BoardAddress(), 8870).Connected(); }));
    }
}

TEST_F(Upload, VideosAreKeptByName)
{
    const std::string folder = kFolder + "/"s;
    const std::vector<std::string> awkward = {"it's $(touch /tmp/pwned)", "-rf", " ", "a;b*", "\xff\xfe"};
    for (const char *const name : {"a.mp4", "b.mp4.bak", "note.txt", "-v.mp4", "twin.mp4"})
        options.files[folder + name] = name;
    for (const std::string &name : awkward)
        options.files[folder + name + "/file"] = "x";
    options.files[folder + "sub/film.mp4"] = "x";
    options.files[folder + "folder.mp4/file"] = "x"; // no folder in the working directory: a video
    options.folders = {"/home/root/twin.mp4"};       // in the working directory: twin.mp4 counts as a folder
    Boot();
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Command(kUploadVideoStart)));
    Settle(peer);
    EXPECT_EQ(List(), "./-v.mp4\n./a.mp4\n./b.mp4.bak\n./folder.mp4\n./folder.mp4/file\n");
    EXPECT_FALSE(board->Root().Exists("/tmp/pwned"));
    EXPECT_TRUE(Ran("rm -r /home/root/plexa_data/factory/sub; if [ $? == \"1\" ]; then rm -r "
                    "/home/root/plexa_data/factory/sub; fi;"));
    EXPECT_TRUE(Logged("[---src/work_thread.cpp::CheckVideoRepeatStart::2435---] b.mp4.bak"));

    Ask(peer, Command(kUploadVideoList, "a.mp4\0gone.mp4\0A.mp4\0a.mp4\0"s), VideoList("a.mp4\0a.mp4\0"s));
    EXPECT_TRUE(Logged("[---src/work_thread.cpp::CheckVideoRepeat::2501---] a.mp4"));
    Ask(peer, Command(kUploadVideoList, "-v.mp4"), VideoList("-v.mp4\0"s)); // without its zero
    Ask(peer, Command(kUploadVideoList), VideoList(""));
    std::string many; // as many as a frame holds
    while (many.size() < 9192)
        many += "a.mp4\0"s;
    Ask(peer, Command(kUploadVideoList, many), VideoList(many));
    many.pop_back();
    Ask(peer, Command(kUploadVideoList, many), VideoList(many + '\0'));

    ASSERT_TRUE(peer.Send(Command(kUploadVideoEnd)));
    Settle(peer);
    EXPECT_EQ(List(), "./-v.mp4\n./a.mp4\n");
}

TEST_F(Upload, NamesStayInsideTheFolder)
{
    options.files["/home/root/plexa_data/precious"] = "precious";
    Boot();
    for (const std::string &name : {"../precious"s, "/etc/x"s, "a//x"s, "a/../../precious"s, "a\nb"s, ""s}) {
        board->Forget();
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin(name) + Data("bad")));
        EXPECT_TRUE(peer.Ended()) << name;
        EXPECT_TRUE(
            board->Record().WaitForLog("factory/"s + (name == "a\nb" ? "a?b" : name) + ": name not allowed"));
        EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));
    }
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/precious"), "precious");
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Begin("a") + kFileEnd + Begin("a/b"))); // a file is no folder
    EXPECT_TRUE(peer.Ended());
    EXPECT_TRUE(Logged("/home/root/plexa_data/factory/a/b: Not a directory."));
    EXPECT_TRUE(board->Record().WaitForLog("/home/root/plexa_data/factory/a/b: Not a directory, errno: 20."));
}

TEST_F(Upload, AFullDiskEndsTheSession)
{
    options.dataMebibytes = 1;
    Boot();
    for (int round = 0; round < 2; ++round) {
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin("big")));
        const std::string block = Data(std::string(9000, 'x'));
        for (int i = 0; i < 150 && peer.Send(block); ++i) {
        }
        peer.Send(kFileEnd + kComplete);
        EXPECT_TRUE(peer.Ended()); // without an answer to kComplete
        EXPECT_TRUE(board->Record().WaitForLog("No space left on device, 28."));
        EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));
        EXPECT_EQ(List(), "");
        board->Forget();
    }
}

TEST_F(Upload, TwoSessionsShareTheService)
{
    options.player = false; // its session would count
    Boot();
    const Unharmed unharmed(*board);
    {
        Peer first = LogIn();
        Settle(first);
        const Peer second = LogIn();
        Settle(second);
        EXPECT_TRUE(LogIn(0).Ended());
        ASSERT_TRUE(first.Send(Begin("one") + Data("111")));
        Settle(first);
        ASSERT_TRUE(second.Send(Begin("two")));
        Settle(second);
        ASSERT_TRUE(first.Send(Data("from the first")));
        Settle(first);
        EXPECT_EQ(Content("one") + Content("two"), "111from the first");
        first = Peer();
        ASSERT_TRUE(board->Record().WaitForLog("LogOut::2364"));
        EXPECT_EQ(List(), "");
        Ask(second, Command(kUploadVideoList, "x.mp4"), VideoList(""));
        Ask(second, kComplete, Result(kUploadAnswerComplete, 0)); // what the session sent is gone
        const Peer third = LogIn();
        Ask(second, kComplete, Result(kUploadAnswerComplete, 0)); // and does not come back
        ASSERT_TRUE(second.Send(Data("late")));
        EXPECT_TRUE(second.Ended());
    }
    EXPECT_TRUE(board->Record().WaitForLog("LogOut::2364", 2));
    unharmed.Check("two sessions");
}

TEST_F(Upload, GoesToTheUsbDisk)
{
    constexpr char kUsbFolder[] = "/home/root/usb_dev/tarvo";
    Boot();
    board->UsbDisk().Plug(true);
    {
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin("kept.mp4") + Data("usb") + kFileEnd));
        Ask(peer, kComplete, Result(kUploadAnswerComplete, 1));
    }
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));
    EXPECT_EQ(board->Root().Read("/home/root/usb_dev/tarvo/kept.mp4"), "usb");
    EXPECT_EQ(Content("kept.mp4"), "(missing)");

    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Begin("b") + Data("1")));
    Settle(peer);
    ASSERT_TRUE(board->Player().Send(kPlayerUsbState, 0)); // the disk is gone
    EXPECT_TRUE(
        board->Record().WaitForLog("[---src/server_witch_plexa::UpdateUSBState::265---] usb remove."));
    ASSERT_TRUE(peer.Send(Data("2")));
    EXPECT_TRUE(peer.Ended());
    EXPECT_TRUE(Logged("u disk remove ."));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd, 2));
    EXPECT_TRUE(Logged("rm -r /home/root/usb_dev/tarvo/*"));
    EXPECT_EQ(List(kUsbFolder), "");
    ASSERT_TRUE(board->Player().Send(kPlayerUsbState, 1));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::UpdateUSBState::261---] usb mount."));
}

TEST_F(Upload, IsNotStoredWhenItsDiskIsGone)
{
    Boot();
    for (const bool playerReports : {true, false}) {
        board->Forget();
        board->UsbDisk().Plug(true);
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin("a") + Data("1") + kFileEnd));
        Settle(peer);
        if (playerReports) {
            ASSERT_TRUE(board->Player().Send(kPlayerUsbState, 0));
            ASSERT_TRUE(board->Record().WaitForLog("usb remove."));
        } else {
            board->UsbDisk().Plug(false);
        }
        Ask(peer, kComplete, Result(kUploadAnswerComplete, 0));
    }
    ASSERT_TRUE(board->WaitFor([&] { return List() + "." == "."; }));
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Begin("a") + kFileEnd));
    Settle(peer);
    board->Run("rm -r "s + kFolder);
    Ask(peer, kComplete, Result(kUploadAnswerComplete, 0));
}
