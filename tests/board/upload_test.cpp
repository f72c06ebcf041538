// SPDX-License-Identifier: MIT
// The upload service: sessions of sub-type 0, byte by byte.
#include "board_test.h"
#include "peer.h"
#include "udp_peer.h"

#include <algorithm>

using namespace std::string_literals;

namespace
{

constexpr char kFolder[] = "/home/root/plexa_data/factory";

std::string Le16(std::size_t value)
{
    return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

// As it stands behind the session's framing; replies look the same without the first 8 bytes.
std::string Packet(char type, const std::string &tail)
{
    return "ft\x00\x01"s + Le16(15 + tail.size()) + type + Zeros(8) + tail;
}

std::string Framed(const std::string &packet)
{
    return Le32(static_cast<std::uint32_t>(8 + packet.size())) + Le32(0xDEADBEEF) + packet;
}

std::string Command(char code, const std::string &payload = "")
{
    return Framed(Packet(1, code + payload));
}

std::string Begin(const std::string &name)
{
    return Command(21, name + '\0');
}

std::string Data(const std::string &bytes)
{
    return Framed(Packet(0, "\xff\xff\xff\xff" + bytes));
}

const std::string kFileEnd = Command(22);
const std::string kComplete = Command(9);

std::string Result(char code, char result)
{
    return Packet(1, std::string{code, result});
}

class Upload : public BoardTest
{
protected:
    Peer LogIn(std::uint8_t status = 1)
    {
        Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
        EXPECT_TRUE(peer.Send(Le32(8) + Le32(0)));
        EXPECT_EQ(peer.Take(8), Le32(8) + Le32(status));
        return peer;
    }
    static void Ask(const Peer &peer, const std::string &request, const std::string &reply)
    {
        ASSERT_TRUE(peer.Send(request));
        ASSERT_EQ(peer.Take(reply.size()), reply);
    }
    // Everything sent so far has been dealt with.
    static void Settle(const Peer &peer) { Ask(peer, Command(5), Result(6, 1)); }

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

TEST_F(Upload, AProgramArrivesAndThePlayerIsTold)
{
    options.files["/boot/disp.bin"] = "picture";
    Boot();
    {
        const Peer peer = LogIn();
        Settle(peer);
        EXPECT_TRUE(board->Player().WaitForMessage(1));
        EXPECT_FALSE(board->Root().Exists("/boot/disp.bin"));
        Ask(peer, Command(3, "identifier.16.by" + Le32(5) + "\1" + Le16(2) + Le32(0) + "a\0b\0c\0"s),
            Result(4, 1));
        Ask(peer, Command(11), Packet(1, "\x07" + "identifier.16.by"s + Zeros(5)));
        const std::string packet(9189, 'x'); // a frame of 9216 bytes
        ASSERT_TRUE(peer.Send(Begin("media/deep/a.bin") + Data(packet) + Data("") + Data(packet) +
                              Data("end") + kFileEnd));
        ASSERT_TRUE(peer.Send(Begin(std::string(250, 'n')) + Data("cut") + kFileEnd + Begin("\xe9 $(x).mp4") +
                              kFileEnd));
        Settle(peer);
        EXPECT_EQ(Content("media/deep/a.bin"), packet + packet + "end");
        EXPECT_EQ(Content(std::string(200, 'n')), "cut");
        EXPECT_EQ(Content("\xe9 $(x).mp4"), "");
        const long syncs = Ran("sync"); // the settings' at boot
        Ask(peer, kComplete, Result(10, 1));
        EXPECT_EQ(Ran("sync"), syncs + 1);
        Ask(peer, Command(12), Result(13, 0));
        EXPECT_EQ(board->Player().Messages().size(), 1U);
    }
    EXPECT_TRUE(board->Player().WaitForMessage(2));
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
        {"left", [](Peer &peer) { peer = Peer(); }, true},
        {"begun again",
         [](Peer &peer) {
             Ask(peer, kComplete + Command(3), Result(10, 1) + Result(4, 1));
             peer = Peer();
         },
         true},
        {"cable pulled", [&](Peer &) { board->Network().Cable(false); }, true},
        {"daemon killed", [&](Peer &) { board->Daemon().Kill(); }, false},
        {"complete",
         [](Peer &peer) {
             Ask(peer, kComplete, Result(10, 1));
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
            EXPECT_TRUE(board->Player().WaitForMessage(2)) << row.name;
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
    options.files[folder + "folder.mp4/file"] = "x"; // nowhere else a folder: counts as a video
    options.folders = {"/home/root/twin.mp4"};       // where the daemon works: the video counts as a folder
    Boot();
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Command(23)));
    Settle(peer);
    EXPECT_EQ(List(), "./-v.mp4\n./a.mp4\n./b.mp4.bak\n./folder.mp4\n./folder.mp4/file\n");
    EXPECT_FALSE(board->Root().Exists("/tmp/pwned"));
    EXPECT_TRUE(Ran("rm -r /home/root/plexa_data/factory/sub; if [ $? == \"1\" ]; then rm -r "
                    "/home/root/plexa_data/factory/sub; fi;"));
    EXPECT_TRUE(Logged("[---src/work_thread.cpp::CheckVideoRepeatStart::2435---] b.mp4.bak"));

    Ask(peer, Command(24, "a.mp4\0gone.mp4\0A.mp4\0a.mp4\0"s), Packet(1, "\x1a" + "a.mp4\0a.mp4\0"s));
    EXPECT_TRUE(Logged("[---src/work_thread.cpp::CheckVideoRepeat::2501---] a.mp4"));
    Ask(peer, Command(24, "-v.mp4"), Packet(1, "\x1a" + "-v.mp4\0"s)); // without its zero
    Ask(peer, Command(24), Packet(1, "\x1a"));
    std::string many; // as many as a frame holds
    while (many.size() < 9192)
        many += "a.mp4\0"s;
    Ask(peer, Command(24, many), Packet(1, "\x1a" + many));
    many.pop_back();
    Ask(peer, Command(24, many), Packet(1, "\x1a" + many + '\0'));

    ASSERT_TRUE(peer.Send(Command(25)));
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
        EXPECT_TRUE(board->Player().WaitForMessage(2));
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
        EXPECT_TRUE(peer.Ended()); // no answer to the 9
        EXPECT_TRUE(board->Record().WaitForLog("No space left on device, 28."));
        EXPECT_TRUE(board->Player().WaitForMessage(2));
        EXPECT_EQ(List(), "");
        board->Forget();
    }
}

TEST_F(Upload, TwoSessionsShareTheService)
{
    options.player = false; // its session counts
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
        Ask(second, Command(24, "x.mp4"), Packet(1, "\x1a"));
        Ask(second, kComplete, Result(10, 0)); // what it sent is gone
        const Peer third = LogIn();
        Ask(second, kComplete, Result(10, 0)); // and does not come back
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
        Ask(peer, kComplete, Result(10, 1));
    }
    EXPECT_TRUE(board->Player().WaitForMessage(2));
    EXPECT_EQ(board->Root().Read("/home/root/usb_dev/tarvo/kept.mp4"), "usb");
    EXPECT_EQ(Content("kept.mp4"), "(missing)");

    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Begin("b") + Data("1")));
    Settle(peer);
    ASSERT_TRUE(board->Player().Send(7, 0)); // the player noticed that the disk is gone
    EXPECT_TRUE(
        board->Record().WaitForLog("[---src/server_witch_plexa::UpdateUSBState::265---] usb remove."));
    ASSERT_TRUE(peer.Send(Data("2")));
    EXPECT_TRUE(peer.Ended());
    EXPECT_TRUE(Logged("u disk remove ."));
    EXPECT_TRUE(board->Player().WaitForMessage(2, 2));
    EXPECT_TRUE(Logged("rm -r /home/root/usb_dev/tarvo/*"));
    EXPECT_EQ(List(kUsbFolder), "");
    ASSERT_TRUE(board->Player().Send(7, 1));
    EXPECT_TRUE(board->Record().WaitForLog("[---src/server_witch_plexa::UpdateUSBState::261---] usb mount."));
}

TEST_F(Upload, IsNotStoredWhenItsDiskIsGone)
{
    Boot();
    for (const bool playerTells : {true, false}) {
        board->Forget();
        board->UsbDisk().Plug(true);
        const Peer peer = LogIn();
        ASSERT_TRUE(peer.Send(Begin("a") + Data("1") + kFileEnd));
        Settle(peer);
        if (playerTells) {
            ASSERT_TRUE(board->Player().Send(7, 0));
            ASSERT_TRUE(board->Record().WaitForLog("usb remove."));
        } else {
            board->UsbDisk().Plug(false);
        }
        Ask(peer, kComplete, Result(10, 0));
    }
    ASSERT_TRUE(board->WaitFor([&] { return List() + "." == "."; }));
    const Peer peer = LogIn();
    ASSERT_TRUE(peer.Send(Begin("a") + kFileEnd));
    Settle(peer);
    board->Run("rm -r "s + kFolder);
    Ask(peer, kComplete, Result(10, 0));
}
