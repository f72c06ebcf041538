// SPDX-License-Identifier: MIT
// The board as a client of a remote management server, which the test plays.
#include "board_test.h"
#include "common/unique_fd.h"
#include "peer.h"

#include <sys/stat.h>

#include <cstring>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace
{

constexpr char kConfigFile[] = "/home/root/plexa_data/remote_server";
constexpr char kFolder[] = "/home/root/plexa_data/factory/";
const std::string kId = std::string("K3-0012345678") + '\0';
const std::string kHeartbeat = Le32(12) + Le32(11) + Le32(0);
const std::string kAccepted = Le32(12) + Le32(10) + Le32(0);

std::string Field(const std::string &text, std::size_t size)
{
    return text + Zeros(size - text.size());
}

std::string Outer(const std::string &inner)
{
    return Le32(static_cast<std::uint32_t>(22 + inner.size())) + Le32(13) + kId + inner;
}

std::string Request(std::uint32_t command, const std::string &data = "")
{
    return Outer(Le32(static_cast<std::uint32_t>(22 + data.size())) + Le32(command) + kId + data);
}

std::string Named(std::uint32_t command, const std::string &name)
{
    return Request(command, Field(name, 255));
}

std::string Chunk(const std::string &data)
{
    return Request(32, Le32(static_cast<std::uint32_t>(data.size())) + "unus" + data);
}

// A reply with its inner length, which is not the data's own in all of them.
std::string Reply(std::uint32_t innerLength, std::uint32_t code, const std::string &data)
{
    return Outer(Le32(innerLength) + Le32(code) + kId + data);
}

std::string NameReply(std::uint32_t code, const std::string &name, std::uint32_t result)
{
    return Reply(281, code, Field(name, 255) + Le32(result));
}

std::string ResultReply(std::uint32_t code, std::uint32_t result)
{
    return Reply(26, code, Le32(result));
}

std::string LockReply(std::uint32_t result)
{
    return Reply(4, 15, Le32(result));
}

std::string ChunkReply(std::uint32_t result)
{
    return Reply(30, 33, Zeros(4) + Le32(result));
}

std::string Md5Reply(const std::string &name, const std::string &digest)
{
    return Reply(293, 17, Field(name, 255) + Field(digest, 16));
}

class RemoteServer : public BoardTest
{
protected:
    void SetUp() override
    {
        listener_ = ledboard::UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in any = At("0.0.0.0", 7001);
        const int on = 1;
        setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        ASSERT_EQ(bind(listener_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        ASSERT_EQ(listen(listener_.Get(), 8), 0);
        options.files["/usr/share/id/config"] = "K3-0012345678";
        options.files[kConfigFile] = "ip=10.20.30.1\nport=7001\nusername=" + std::string(20, 'u') + "\n";
        options.folders.push_back(kFolder);
    }

    // The next connection, with its greeting and login taken.
    Peer Accept(int limit = 5000)
    {
        pollfd waiting{.fd = listener_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, limit) != 1)
            return {};
        Peer peer(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(peer.Take(43), "\3" + Le32(42) + Le32(2) + user_ + kId);
        return peer;
    }

    // An accepted connection with the device's parameters taken.
    Peer AcceptAndWelcome(int limit = 5000)
    {
        Peer peer = Accept(limit);
        EXPECT_TRUE(peer.Send(kAccepted));
        EXPECT_EQ(peer.Take(522).size(), 522U);
        return peer;
    }

    // The device locked, too.
    Peer Begin()
    {
        Boot();
        Peer peer = AcceptAndWelcome();
        EXPECT_EQ(Ask(peer, Request(14), 48), LockReply(1));
        board->Forget();
        return peer;
    }

    // Packets of `size` bytes together, the heartbeats between them left out.
    static std::string TakeReplies(const Peer &peer, std::size_t size, int limit = 5000)
    {
        std::string replies;
        while (replies.size() < size) {
            std::string packet = peer.Take(8, limit);
            if (packet.size() < 8)
                break;
            std::uint32_t length;
            std::memcpy(&length, packet.data(), sizeof length);
            packet += peer.Take(length - 8, limit);
            if (packet != kHeartbeat)
                replies += packet;
        }
        return replies;
    }

    static std::string Ask(const Peer &peer, const std::string &request, std::size_t size)
    {
        EXPECT_TRUE(peer.Send(request));
        return TakeReplies(peer, size);
    }

    // What the board sends for a request that gets exactly this reply.
    static void Expect(const Peer &peer, const std::string &request, const std::string &reply)
    {
        EXPECT_EQ(Ask(peer, request, reply.size()), reply);
    }

    std::string AskByUdp(const std::string &datagram)
    {
        const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_in to = At(board->Network().BoardAddress(), 8878);
        sendto(fd.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
        pollfd waiting{.fd = fd.Get(), .events = POLLIN, .revents = 0};
        char reply[1024];
        const ssize_t size = poll(&waiting, 1, 2000) == 1 ? recv(fd.Get(), reply, sizeof reply, 0) : 0;
        return size < 15 ? "" : std::string(reply + 15, static_cast<std::size_t>(size) - 15);
    }

    std::string SetServer(const std::string &address, std::uint32_t port, const std::string &user)
    {
        return AskByUdp("ft" + Zeros(13 + 18) + Zeros(2) + Field(address, 256) + Le32(port) +
                        Field(user, 20));
    }

    std::string user_ = std::string(20, 'u');
    ledboard::UniqueFd listener_;
};

} // namespace

TEST_F(RemoteServer, LoginParametersAndHeartbeats)
{
    options.files["/usr/share/id/name"] = "north gate";
    Boot();
    const Peer peer = Accept();
    ASSERT_TRUE(peer.Send(Le32(12) + Le32(10) + Le32(1) + Le32(8) + Le32(99))); // refused; an unknown command
    EXPECT_TRUE(peer.Silent(100));
    ASSERT_TRUE(peer.Send(kAccepted));
    const std::string param = peer.Take(522);
    ASSERT_EQ(param.size(), 522U);
    EXPECT_EQ(param.substr(0, 28), Le32(522) + Le32(9) + kId + Zeros(4) + "\x99\x01");
    EXPECT_EQ(param.substr(28, 9), Zeros(9));
    EXPECT_EQ(param.substr(37, 5), "\x0F\x0A\x14\x1E\x02") << "10.20.30.2";
    EXPECT_EQ(param.substr(42, 8), Zeros(8));
    EXPECT_EQ(param.substr(50, 14), kId);
    EXPECT_EQ(param.substr(129, 11), Field("north gate", 11));
    EXPECT_EQ(param.substr(379), Zeros(143));

    EXPECT_TRUE(peer.Silent(4500)) << "every seventh tick";
    // Two more entries in the tick table: three calls a tick.
    Expect(peer, kAccepted + kAccepted, param + param);
    EXPECT_EQ(peer.Take(12), kHeartbeat);
    const auto quick = Clock::now();
    EXPECT_EQ(peer.Take(12), kHeartbeat);
    EXPECT_LT(Clock::now() - quick, 6s);
}

TEST_F(RemoteServer, PacketsInAnyPieces)
{
    Boot();
    const Peer peer = AcceptAndWelcome();
    const std::string requests = Request(37) + Le32(9) + Le32(77) + "x" + Request(14) + Request(36);
    const std::string replies = LockReply(1) + Reply(23, 37, Zeros(1));
    Expect(peer, requests, replies);
    for (const char byte : requests)
        ASSERT_TRUE(peer.Send(std::string(1, byte)));
    EXPECT_EQ(TakeReplies(peer, replies.size()), LockReply(2) + Reply(23, 37, Zeros(1)));
    EXPECT_TRUE(board->Record().WaitForLog("type: 37", 2));
}

TEST_F(RemoteServer, RubbishIsAnsweredWithPatience)
{
    Boot();
    const auto inode = [this] {
        struct stat status = {};
        stat((board->Root().Folder() + kConfigFile).c_str(), &status);
        return status.st_ino;
    };
    const ino_t before = inode();
    Clock::time_point last = Clock::now() - 1h;
    const std::string rubbish[] = {"", Le32(0)};
    for (const std::string &bytes : rubbish) {
        const Peer peer = Accept(8000);
        ASSERT_TRUE(peer.Connected());
        EXPECT_GT(Clock::now() - last, 4s) << "connects are apart"; // six, less what the test is late
        last = Clock::now();
        if (bytes.empty()) // closes at once
            continue;
        ASSERT_TRUE(peer.Send(bytes));
        EXPECT_TRUE(peer.Ended());
    }
    EXPECT_TRUE(board->Record().WaitForLog("the remote server sent a broken packet"));
    AcceptAndWelcome(8000);
    last = Clock::now();
    AcceptAndWelcome();
    EXPECT_LT(Clock::now() - last, 5s) << "a server that had accepted is found again at once";
    EXPECT_EQ(inode(), before) << "the file is not written again";
}

TEST_F(RemoteServer, SetByTheToolAndForgotten)
{
    options.files.erase(kConfigFile);
    Boot();
    const std::string status = "ft" + Zeros(13) + Le32(2) + kId;
    EXPECT_EQ(AskByUdp(status), Le32(2) + kId + Zeros(1));
    user_ = Field("someone", 20);
    EXPECT_EQ(SetServer("10.20.30.1", 7002, "nobody"), Le32(4) + kId + "\1"); // refused there, so it waits
    ASSERT_TRUE(board->Record().WaitForLog("create ConnectThread Success."));
    EXPECT_EQ(SetServer("10.20.30.1", 65536 + 7001, "someone"), Le32(4) + kId + "\1");
    EXPECT_EQ(board->Root().Read(kConfigFile), "ip=10.20.30.1\nport=7001\nusername=someone\n");
    const Peer peer = AcceptAndWelcome();
    EXPECT_EQ(AskByUdp(status), Le32(2) + kId + "\1");
    EXPECT_EQ(AskByUdp("ft" + Zeros(13) + Le32(6) + kId),
              Le32(6) + kId + Zeros(2) + Field("10.20.30.1", 256) + Le32(65536 + 7001) + user_);

    Expect(peer, Request(14), LockReply(1));
    board->Forget();
    EXPECT_EQ(AskByUdp("ft" + Zeros(13) + Le32(5) + kId), Le32(5) + kId + Zeros(1));
    EXPECT_TRUE(peer.Ended());
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>{"rm /home/root/plexa_data/remote_server"});
    EXPECT_FALSE(Accept(1500).Connected());

    SetServer("10.20.30.1", 7001, "someone");
    const Peer again = AcceptAndWelcome();
    Expect(again, Request(14), LockReply(2)); // the lock outlives the server that held it
}

TEST_F(RemoteServer, SessionLocksListsAndTellsThePlayer)
{
    options.files[std::string(kFolder) + "b.mp4"] = "b";
    options.files[std::string(kFolder) + "a.txt"] = "a";
    options.files[std::string(kFolder) + "sub/c.mp4"] = "c";
    options.files[std::string(kFolder) + "sub/half.mp4.tarvo.bak"] = "11";
    Boot();
    const Peer peer = AcceptAndWelcome();
    Expect(peer, Request(20), Reply(23, 21, Zeros(1))); // before the session there is no list
    Expect(peer, Request(14), LockReply(1));
    EXPECT_TRUE(board->Player().WaitForMessage(1));
    EXPECT_TRUE(board->Record().WaitForLog("unfinished file: sub/half.mp4"));
    const std::string all = "a.txt" + Zeros(1) + "b.mp4" + Zeros(1) + "sub/c.mp4" + Zeros(1);
    const std::string listed = Ask(peer, Request(20), 44 + all.size() + 1).substr(44);
    EXPECT_EQ(listed.size(), all.size() + 1);
    for (const char *const name : {"a.txt", "b.mp4", "sub/c.mp4"})
        EXPECT_NE(listed.find(name + Zeros(1)), std::string::npos) << name;
    EXPECT_LT(listed.find("a.txt"), listed.find("b.mp4")) << "by file type, the last first";
    const std::string videos = Ask(peer, Request(36), 44 + all.size() + 1 - 6).substr(44);
    EXPECT_EQ(videos.find("a.txt"), std::string::npos);

    // A refused user has the lists made anew all the same.
    board->Root().Write(std::string(kFolder) + "new.txt", "n");
    Expect(peer, Request(14), LockReply(2));
    EXPECT_NE(Ask(peer, Request(20), 44 + all.size() + 9).find("new.txt"), std::string::npos);

    ASSERT_TRUE(peer.Send(Request(31)));
    EXPECT_TRUE(board->Player().WaitForMessage(12)) << "not finished";
    Expect(peer, Request(14), LockReply(1));
    const std::string finish = Request(34, "what was brought");
    std::string echo = Field(finish, 299);
    echo.replace(0, 4, Le32(299));
    Expect(peer, finish, echo);
    EXPECT_TRUE(board->Player().WaitForMessage(2));
    EXPECT_TRUE(board->Record().WaitForLog("::LogOut::"));
    ASSERT_TRUE(peer.Send(Request(31)));
    Expect(peer, Request(14), LockReply(1));
    EXPECT_TRUE(board->Player().WaitForMessage(1, 4));
    EXPECT_FALSE(board->Player().WaitForMessage(12, 2, 100ms)) << "it was finished";

    board->Forget();
    board->Root().MakeFolder(std::string(kFolder) + "empty/deep");
    Expect(peer, Request(38), Reply(22, 39, ""));
    EXPECT_EQ(board->Record().Commands(),
              (std::vector<std::string>{"rm /home/root/plexa_data/factory/new.txt",
                                        "rm /home/root/plexa_data/factory/a.txt"}));
    EXPECT_FALSE(board->Root().Exists(std::string(kFolder) + "empty"));
    EXPECT_TRUE(board->Root().Exists(std::string(kFolder) + "sub/c.mp4"));
}

TEST_F(RemoteServer, ListsOfManyNamesComeInPieces)
{
    for (int number = 1000; number < 1400; ++number)
        options.files[kFolder + std::string(40, 'v') + std::to_string(number) + ".mp4"] = "";
    const Peer peer = Begin();
    // 400 names of 49 bytes with their zero: 187 whole ones fit into a packet.
    ASSERT_TRUE(peer.Send(Request(20)));
    for (const std::uint32_t names : {187U, 187U, 26U}) {
        const std::uint32_t size = 44 + 49 * names + (names == 26 ? 1 : 0);
        const std::string reply = TakeReplies(peer, size);
        EXPECT_EQ(reply.substr(0, 30), Le32(size) + Le32(13) + kId + Le32(size - 22) + Le32(21));
        EXPECT_EQ(reply.substr(44, 40), std::string(40, 'v'));
    }
}

TEST_F(RemoteServer, FilesAreReceivedResumedAndVerified)
{
    const Peer peer = Begin();
    const std::string path = std::string(kFolder) + "sub/a.mp4";
    const std::string table = path + ".tarvo.bak";
    Expect(peer, Named(24, "sub/a.mp4"), NameReply(30, "sub/a.mp4", 1));
    Expect(peer, Chunk("12345") + Chunk("6789") + Chunk(""), ChunkReply(1) + ChunkReply(1) + ChunkReply(1));
    EXPECT_EQ(board->Root().Read(path), "123456789");
    EXPECT_EQ(board->Root().Read(table), "111");
    Expect(peer, Named(22, "sub/a.mp4"), Reply(281, 23, Field("sub/a.mp4", 255) + "111" + Zeros(1)));
    Expect(peer, Named(22, "sub/a.mp4"), Reply(278, 23, Field("sub/a.mp4", 255) + Zeros(1)));
    Expect(peer, Named(22, "sub/a.mp4"), Reply(281, 23, Field("sub/a.mp4", 255) + "111" + Zeros(1)));
    Expect(peer, Named(16, "sub/a.mp4"), Md5Reply("sub/a.mp4", "25f9e794323b4538"));
    board->Forget();
    Expect(peer, Named(25, "sub/a.mp4"), NameReply(29, "sub/a.mp4", 0x0376E6E7));
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>{"rm " + table});
    EXPECT_FALSE(board->Root().Exists(table));
    Expect(peer, Chunk("more"), ChunkReply(2));
    Expect(peer, Named(25, "sub/a.mp4"), NameReply(29, "sub/a.mp4", 0x0376E6E7)); // nothing is open

    // A lost connection leaves file and table; the CRC begins anew where it is resumed.
    Expect(peer, Named(24, "b"), NameReply(30, "b", 1));
    Expect(peer, Chunk("begin "), ChunkReply(1));
    shutdown(peer.Get(), SHUT_RDWR);
    const Peer again = AcceptAndWelcome();
    Expect(again, Request(14), LockReply(1));
    Expect(again, Named(35, "b"), NameReply(30, "b", 1));
    Expect(again, Chunk("123456789"), ChunkReply(1));
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "b"), "begin 123456789");
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "b.tarvo.bak"), "11");
    Expect(again, Named(25, "b"), NameReply(29, "b", 0x0376E6E7));

    // A transfer that began without a USB disk ends when there is one.
    Expect(again, Named(24, "c"), NameReply(30, "c", 1));
    ASSERT_TRUE(board->Player().Send(7, 1));
    EXPECT_TRUE(board->WaitFor([&] { return Ask(again, Chunk("x"), 52) == ChunkReply(2); }));
}

TEST_F(RemoteServer, NamesAreBytes)
{
    const Peer peer = Begin();
    for (const std::string name : {"caf\xE9/na\xEFve/f\xFFlm", ".hidden/.file", "\xE6\x96\x87\\b"}) {
        Expect(peer, Named(24, name), NameReply(30, name, 1));
        Expect(peer, Chunk(name), ChunkReply(1));
        EXPECT_EQ(board->Root().Read(kFolder + name), name);
    }
    EXPECT_TRUE(board->Root().Exists(std::string(kFolder) + "\xE6\x96\x87")) << "cut at the backslash, too";
    Expect(peer, Request(14), LockReply(2));
    // Neither hidden names nor what is no UTF-8 is listed.
    Expect(peer, Request(20), Reply(29, 21, "\xE6\x96\x87\\b" + Zeros(2)));
}

TEST_F(RemoteServer, RefusalsAndMissingThings)
{
    options.files[std::string(kFolder) + "a.txt"] = "a";
    options.files[std::string(kFolder) + "b/c.mp4"] = "c";
    options.files[std::string(kFolder) + "it's here"] = "x";
    Boot();
    const Peer peer = AcceptAndWelcome();
    board->Forget();
    // Before a session there is no folder.
    Expect(peer, Named(24, "n"), NameReply(30, "n", 2));
    Expect(peer, Named(35, "n"), NameReply(30, "n", 2));
    Expect(peer, Chunk("x"), ChunkReply(2));
    Expect(peer, Request(18), ResultReply(19, 2));
    Expect(peer, Request(28, "n" + Zeros(1)), ResultReply(27, 1));
    Expect(peer, Request(38), Reply(22, 39, ""));
    Expect(peer, Named(22, "n") + Named(16, "n"), Md5Reply("n", ""));
    EXPECT_TRUE(board->Record().Commands().empty());

    Expect(peer, Request(14), LockReply(1));
    board->Forget();
    for (const std::string name : {"../up", "/etc/passwd", "a//b", "", "x/../../y", "new\nline"}) {
        SCOPED_TRACE(name);
        Expect(peer, Named(24, name), NameReply(30, name, 2));
        Expect(peer, Named(35, name), NameReply(30, name, 2));
        Expect(peer, Named(22, name) + Named(16, name), Md5Reply(name, ""));
        Expect(peer, Request(28, name + Zeros(1)), ResultReply(27, 1));
    }
    EXPECT_TRUE(board->Record().Commands().empty());
    Expect(peer, Named(16, "missing"), Md5Reply("missing", ""));
    Expect(peer, Named(22, "missing") + Named(16, "a.txt"), Md5Reply("a.txt", "0cc175b9c0f1b6a8"));
    Expect(peer, Request(28, "a.txt" + Zeros(1) + "b/c.mp4" + Zeros(1) + "it's here"), ResultReply(27, 1));
    Expect(peer, Request(18), ResultReply(19, 1));
    const std::vector<std::string> commands = {"rm /home/root/plexa_data/factory//missing.tarvo.bak",
                                               "rm /home/root/plexa_data/factory/a.txt",
                                               "rm /home/root/plexa_data/factory/b/c.mp4",
                                               "rm '/home/root/plexa_data/factory/it'\\''s here'",
                                               "rm -r /home/root/plexa_data/factory/*"};
    EXPECT_EQ(board->Record().Commands(), commands);
    EXPECT_FALSE(board->Root().Exists(std::string(kFolder) + "it's here"));
    Expect(peer, Request(32, Le32(2) + "unus" + "x"), ChunkReply(2)); // fewer bytes than it says
}

TEST_F(RemoteServer, LongTableIsReadInPieces)
{
    options.files[std::string(kFolder) + "v.mp4.tarvo.bak"] = std::string(10000, '1');
    options.files[std::string(kFolder) + "w.mp4.tarvo.bak"] = "1";
    const Peer peer = Begin();
    const auto piece = [](const std::string &name, std::uint32_t count) {
        return Reply(278 + count, 23, Field(name, 255) + std::string(count, '1') + Zeros(1));
    };
    // The first one is left open and given up for the second.
    Expect(peer, Named(22, "v.mp4"), piece("v.mp4", 8916));
    Expect(peer, Named(22, "w.mp4"), piece("w.mp4", 1));
    for (const std::uint32_t count : {8916U, 1084U, 0U})
        Expect(peer, Named(22, "v.mp4"), piece("v.mp4", count));
}

TEST_F(RemoteServer, FullDiskFailsTheChunk)
{
    options.dataMebibytes = 1;
    options.folders.clear();
    const Peer peer = Begin();
    Expect(peer, Named(24, "v.mp4"), NameReply(30, "v.mp4", 1));
    const std::string data(8000, 'x');
    std::size_t stored = 0;
    while (Ask(peer, Chunk(data), 52) == ChunkReply(1))
        ++stored;
    EXPECT_GT(stored, 100U);
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "v.mp4").size(), stored * data.size());
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "v.mp4.tarvo.bak").size(), stored);
}

TEST_F(RemoteServer, LargeDigestsKeepTheOrderAndTheLoopFree)
{
    const Peer peer = Begin();
    board->Run("truncate -s 1G /home/root/plexa_data/factory/large");
    ASSERT_TRUE(peer.Send(Named(16, "large") + Request(18) + Named(16, "large")));
    const auto begin = Clock::now();
    EXPECT_EQ(AskByUdp("ft" + Zeros(28)).size(), 394U);
    EXPECT_LT(Clock::now() - begin, 1s);
    EXPECT_EQ(TakeReplies(peer, 315 + 48 + 315, 60000),
              Md5Reply("large", "cd573cfaace07e79") + ResultReply(19, 1) + Md5Reply("large", ""));

    // A connection that goes while a digest is computed takes it along.
    board->Run("truncate -s 1G /home/root/plexa_data/factory/large");
    ASSERT_TRUE(peer.Send(Named(16, "large")));
    EXPECT_EQ(AskByUdp("ft" + Zeros(13) + Le32(5) + kId), Le32(5) + kId + Zeros(1));
    EXPECT_TRUE(peer.Ended());
    SetServer("10.20.30.1", 7001, user_);
    const Peer again = AcceptAndWelcome();
    Expect(again, Named(16, "none"), Md5Reply("none", ""));
}

TEST_F(RemoteServer, ServerThatDoesNotReadIsLeft)
{
    options.files[std::string(kFolder) + "v.tarvo.bak"] = std::string(20'000'000, '1');
    const Peer peer = Begin();
    std::thread sender([&peer] { // answers are thirty times as long as questions
        while (peer.Send(Named(22, "v"))) {
        }
    });
    EXPECT_TRUE(board->Record().WaitForLog("send device param fail: ", 1, 30s));
    EXPECT_EQ(AskByUdp("ft" + Zeros(28)).size(), 394U);
    sender.join();
    EXPECT_EQ(Ask(AcceptAndWelcome(), Request(14), 48), LockReply(1)) << "the lock went with the connection";
}
