// SPDX-License-Identifier: MIT
// The board as a client of a remote management server, which the test plays.
#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"
#include "player_codes.h"
#include "remote_packets.h"

#include <sys/stat.h>

#include <cstring>
#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace
{

constexpr char kConfigFile[] = "/home/root/plexa_data/remote_server";
constexpr char kFolder[] = "/home/root/plexa_data/factory/";
const std::string kHeartbeat = RemoteHeartbeat();
const std::string kAccepted = RemoteLoginAnswer(0);

std::string StatusRequest(std::uint32_t command)
{
    return ProtocolHeader(0, 0, 0) + Le32(command) + kRemoteId;
}

std::string Search()
{
    return ProtocolHeader(0, 0, 0) + Zeros(kSearchSize - kHeaderSize);
}

// What AskByUdp gets for kStatusServerConnected, kStatusSetServer and kStatusForgetServer.
std::string ServerReply(std::uint32_t command, char connected)
{
    return Le32(command) + kRemoteId + connected;
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

    // The next connection, after its greeting and login.
    Peer Accept(int limit = 5000)
    {
        pollfd waiting{.fd = listener_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, limit) != 1)
            return {};
        Peer peer(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_EQ(peer.Take(kRemoteLoginSize), RemoteLogin(user_, kRemoteId));
        return peer;
    }

    // An accepted connection, after the device's parameters.
    Peer AcceptAndWelcome(int limit = 5000)
    {
        Peer peer = Accept(limit);
        EXPECT_TRUE(peer.Send(kAccepted));
        EXPECT_EQ(peer.Take(kDeviceParamSize).size(), kDeviceParamSize);
        return peer;
    }

    // The same, and the device is locked.
    Peer Begin()
    {
        Boot();
        Peer peer = AcceptAndWelcome();
        EXPECT_EQ(Ask(peer, Request(kRemoteLock), kLockReplySize), LockReply(kLocked));
        board->Forget();
        return peer;
    }

    // Packets of `size` bytes in all; heartbeats between them are skipped.
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
        const std::string unread = Zeros(4 + kIdSize); // places of a command and of an identifier
        const std::string isNoHostName = Le16(0);
        return AskByUdp(ProtocolHeader(0, 0, 0) + unread + isNoHostName + Field(address, 256) + Le32(port) +
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
    const std::string unknown = Le32(8) + Le32(99);
    ASSERT_TRUE(peer.Send(RemoteLoginAnswer(1) + unknown));
    EXPECT_TRUE(peer.Silent(100)) << "refused";
    ASSERT_TRUE(peer.Send(kAccepted));
    const std::string param = peer.Take(kDeviceParamSize);
    ASSERT_EQ(param.size(), kDeviceParamSize);
    EXPECT_EQ(param.substr(0, 22), RemotePacket(kDeviceParamSize, kRemoteDeviceParam, kRemoteId, ""));
    EXPECT_EQ(param.substr(22, 6), Zeros(4) + Le16(kSearchReplySize));
    EXPECT_EQ(param.substr(28, 9), Zeros(9));
    constexpr char kSearchAnswer = 15;
    EXPECT_EQ(param.substr(37, 5), kSearchAnswer + std::string("\x0A\x14\x1E\x02")) << "10.20.30.2";
    EXPECT_EQ(param.substr(42, 8), Zeros(8)) << "two states";
    constexpr std::size_t kRecordAt = 50;
    constexpr std::size_t kNameAt = kRecordAt + 79;
    EXPECT_EQ(param.substr(kRecordAt, kIdSize), kRemoteId);
    EXPECT_EQ(param.substr(kNameAt, 11), Field("north gate", 11));
    EXPECT_EQ(param.substr(kRecordAt + 329), Zeros(143));

    EXPECT_TRUE(peer.Silent(4500)) << "every seventh tick";
    // Two more entries in the tick table: the heartbeat is called three times a tick.
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
    const std::string unknown = Le32(9) + Le32(77) + "x";
    const std::string requests =
        Request(kRemoteVideosReply) + unknown + Request(kRemoteLock) + Request(kRemoteListVideos);
    const std::string noVideos = ListReply(kRemoteVideosReply, Zeros(1));
    const std::string replies = LockReply(kLocked) + noVideos;
    Expect(peer, requests, replies);
    for (const char byte : requests)
        ASSERT_TRUE(peer.Send(std::string(1, byte)));
    EXPECT_EQ(TakeReplies(peer, replies.size()), LockReply(kLockedByAnother) + noVideos);
    EXPECT_TRUE(board->Record().WaitForLog("type: 37", 2));
}

TEST_F(RemoteServer, AServerThatSendsRubbishIsTriedAgainLater)
{
    Boot();
    const auto inode = [this] {
        struct stat status = {};
        stat((board->Root().Folder() + kConfigFile).c_str(), &status);
        return status.st_ino;
    };
    const ino_t before = inode();
    Clock::time_point last = Clock::now() - 1h;
    const std::string tooShortLength = Le32(0);
    const std::string rubbish[] = {"", tooShortLength};
    for (const std::string &bytes : rubbish) {
        const Peer peer = Accept(8000);
        ASSERT_TRUE(peer.Connected());
        EXPECT_GT(Clock::now() - last, 4s) << "six seconds, less what the test is late";
        last = Clock::now();
        if (bytes.empty()) // the server closes at once
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
    const std::string status = StatusRequest(kStatusServerConnected);
    EXPECT_EQ(AskByUdp(status), ServerReply(kStatusServerConnected, 0));
    user_ = Field("someone", 20);
    // Nothing listens there: the board waits before it tries again.
    EXPECT_EQ(SetServer("10.20.30.1", 7002, "nobody"), ServerReply(kStatusSetServer, 1));
    ASSERT_TRUE(board->Record().WaitForLog("create ConnectThread Success."));
    EXPECT_EQ(SetServer("10.20.30.1", 65536 + 7001, "someone"), ServerReply(kStatusSetServer, 1));
    EXPECT_EQ(board->Root().Read(kConfigFile), "ip=10.20.30.1\nport=7001\nusername=someone\n");
    const Peer peer = AcceptAndWelcome();
    EXPECT_EQ(AskByUdp(status), ServerReply(kStatusServerConnected, 1));
    const std::string isNoHostName = Le16(0);
    EXPECT_EQ(AskByUdp(StatusRequest(kStatusServerAddress)), Le32(kStatusServerAddress) + kRemoteId +
                                                                 isNoHostName + Field("10.20.30.1", 256) +
                                                                 Le32(65536 + 7001) + user_);

    Expect(peer, Request(kRemoteLock), LockReply(kLocked));
    board->Forget();
    EXPECT_EQ(AskByUdp(StatusRequest(kStatusForgetServer)), ServerReply(kStatusForgetServer, 0));
    EXPECT_TRUE(peer.Ended());
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>{"rm /home/root/plexa_data/remote_server"});
    EXPECT_FALSE(Accept(1500).Connected());

    SetServer("10.20.30.1", 7001, "someone");
    const Peer again = AcceptAndWelcome();
    // The lock stays when the server is removed.
    Expect(again, Request(kRemoteLock), LockReply(kLockedByAnother));
}

TEST_F(RemoteServer, SessionLocksListsAndNotifiesThePlayer)
{
    options.files[std::string(kFolder) + "b.mp4"] = "b";
    options.files[std::string(kFolder) + "a.txt"] = "a";
    options.files[std::string(kFolder) + "sub/c.mp4"] = "c";
    options.files[std::string(kFolder) + "sub/half.mp4.tarvo.bak"] = "11";
    Boot();
    const Peer peer = AcceptAndWelcome();
    // There is no list before the first lock.
    Expect(peer, Request(kRemoteListFiles), ListReply(kRemoteFilesReply, Zeros(1)));
    Expect(peer, Request(kRemoteLock), LockReply(kLocked));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvProgram));
    EXPECT_TRUE(board->Record().WaitForLog("unfinished file: sub/half.mp4"));
    const std::string all = "a.txt" + Zeros(1) + "b.mp4" + Zeros(1) + "sub/c.mp4" + Zeros(1);
    const std::string listed = Ask(peer, Request(kRemoteListFiles), kDataAt + all.size() + 1).substr(kDataAt);
    EXPECT_EQ(listed.size(), all.size() + 1);
    for (const char *const name : {"a.txt", "b.mp4", "sub/c.mp4"})
        EXPECT_NE(listed.find(name + Zeros(1)), std::string::npos) << name;
    EXPECT_LT(listed.find("a.txt"), listed.find("b.mp4")) << "by file type, the last first";
    const std::string videos =
        Ask(peer, Request(kRemoteListVideos), kDataAt + all.size() + 1 - 6).substr(kDataAt);
    EXPECT_EQ(videos.find("a.txt"), std::string::npos);

    // The lists are made again even for a user who is refused.
    board->Root().Write(std::string(kFolder) + "new.txt", "n");
    Expect(peer, Request(kRemoteLock), LockReply(kLockedByAnother));
    EXPECT_NE(Ask(peer, Request(kRemoteListFiles), kDataAt + all.size() + 9).find("new.txt"),
              std::string::npos);

    ASSERT_TRUE(peer.Send(Request(kRemoteUnlock)));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvNoFinish)) << "not finished";
    Expect(peer, Request(kRemoteLock), LockReply(kLocked));
    const std::string finish = Request(kRemoteFinish, "what was brought");
    std::string echo = Field(finish, 299);
    echo.replace(0, 4, Le32(299));
    Expect(peer, finish, echo);
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));
    EXPECT_TRUE(board->Record().WaitForLog("::LogOut::"));
    ASSERT_TRUE(peer.Send(Request(kRemoteUnlock)));
    Expect(peer, Request(kRemoteLock), LockReply(kLocked));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvProgram, 4));
    EXPECT_FALSE(board->Player().WaitForMessage(kPlayerRecvNoFinish, 2, 100ms)) << "it was finished";

    board->Forget();
    board->Root().MakeFolder(std::string(kFolder) + "empty/deep");
    Expect(peer, Request(kRemoteRemoveNotVideo), Reply(22, kRemoteNotVideoReply, ""));
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
    ASSERT_TRUE(peer.Send(Request(kRemoteListFiles)));
    for (const std::size_t names : {187U, 187U, 26U}) {
        const std::size_t size = kDataAt + 49 * names + (names == 26 ? 1 : 0); // the last zero ends the list
        const std::string reply = TakeReplies(peer, size);
        const std::string inner = RemotePacket(size - 22, kRemoteFilesReply, kRemoteId, std::string(40, 'v'));
        EXPECT_EQ(reply.substr(0, kDataAt + 40), RemotePacket(size, kRemoteSession, kRemoteId, inner));
    }
}

TEST_F(RemoteServer, FilesAreReceivedResumedAndVerified)
{
    const Peer peer = Begin();
    const std::string path = std::string(kFolder) + "sub/a.mp4";
    const std::string table = path + ".tarvo.bak";
    constexpr std::uint32_t kCrcOf123456789 = 0x0376E6E7;
    Expect(peer, Named(kRemoteCreate, "sub/a.mp4"), NameReply(kRemoteOpenReply, "sub/a.mp4", kSuccess));
    Expect(peer, Chunk("12345") + Chunk("6789") + Chunk(""),
           ChunkReply(kSuccess) + ChunkReply(kSuccess) + ChunkReply(kSuccess));
    EXPECT_EQ(board->Root().Read(path), "123456789");
    EXPECT_EQ(board->Root().Read(table), "111");
    Expect(peer, Named(kRemoteTable, "sub/a.mp4"), TableReply("sub/a.mp4", "111"));
    Expect(peer, Named(kRemoteTable, "sub/a.mp4"), TableReply("sub/a.mp4", ""));
    Expect(peer, Named(kRemoteTable, "sub/a.mp4"), TableReply("sub/a.mp4", "111"));
    Expect(peer, Named(kRemoteMd5, "sub/a.mp4"), Md5Reply("sub/a.mp4", "25f9e794323b4538"));
    board->Forget();
    Expect(peer, Named(kRemoteClose, "sub/a.mp4"),
           NameReply(kRemoteCloseReply, "sub/a.mp4", kCrcOf123456789));
    EXPECT_EQ(board->Record().Commands(), std::vector<std::string>{"rm " + table});
    EXPECT_FALSE(board->Root().Exists(table));
    Expect(peer, Chunk("more"), ChunkReply(kFailure));
    Expect(peer, Named(kRemoteClose, "sub/a.mp4"),
           NameReply(kRemoteCloseReply, "sub/a.mp4", kCrcOf123456789)); // nothing is open

    // A lost connection leaves file and table; the CRC starts again where the transfer is resumed.
    Expect(peer, Named(kRemoteCreate, "b"), NameReply(kRemoteOpenReply, "b", kSuccess));
    Expect(peer, Chunk("begin "), ChunkReply(kSuccess));
    shutdown(peer.Get(), SHUT_RDWR);
    const Peer again = AcceptAndWelcome();
    Expect(again, Request(kRemoteLock), LockReply(kLocked));
    Expect(again, Named(kRemoteResume, "b"), NameReply(kRemoteOpenReply, "b", kSuccess));
    Expect(again, Chunk("123456789"), ChunkReply(kSuccess));
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "b"), "begin 123456789");
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "b.tarvo.bak"), "11");
    Expect(again, Named(kRemoteClose, "b"), NameReply(kRemoteCloseReply, "b", kCrcOf123456789));

    // A transfer that began without a USB disk ends when one is plugged in.
    Expect(again, Named(kRemoteCreate, "c"), NameReply(kRemoteOpenReply, "c", kSuccess));
    ASSERT_TRUE(board->Player().Send(kPlayerUsbState, 1));
    EXPECT_TRUE(
        board->WaitFor([&] { return Ask(again, Chunk("x"), kChunkReplySize) == ChunkReply(kFailure); }));
}

TEST_F(RemoteServer, NamesAreBytes)
{
    const Peer peer = Begin();
    for (const std::string name : {"caf\xE9/na\xEFve/f\xFFlm", ".hidden/.file", "\xE6\x96\x87\\b"}) {
        Expect(peer, Named(kRemoteCreate, name), NameReply(kRemoteOpenReply, name, kSuccess));
        Expect(peer, Chunk(name), ChunkReply(kSuccess));
        EXPECT_EQ(board->Root().Read(kFolder + name), name);
    }
    EXPECT_TRUE(board->Root().Exists(std::string(kFolder) + "\xE6\x96\x87"))
        << "a backslash ends a folder, too";
    Expect(peer, Request(kRemoteLock), LockReply(kLockedByAnother));
    // Hidden names and names that are not UTF-8 are not listed.
    Expect(peer, Request(kRemoteListFiles), ListReply(kRemoteFilesReply, "\xE6\x96\x87\\b" + Zeros(2)));
}

TEST_F(RemoteServer, RefusedAndMissingNames)
{
    options.files[std::string(kFolder) + "a.txt"] = "a";
    options.files[std::string(kFolder) + "b/c.mp4"] = "c";
    options.files[std::string(kFolder) + "it's here"] = "x";
    Boot();
    const Peer peer = AcceptAndWelcome();
    board->Forget();
    // Before a session there is no folder.
    Expect(peer, Named(kRemoteCreate, "n"), NameReply(kRemoteOpenReply, "n", kFailure));
    Expect(peer, Named(kRemoteResume, "n"), NameReply(kRemoteOpenReply, "n", kFailure));
    Expect(peer, Chunk("x"), ChunkReply(kFailure));
    Expect(peer, Request(kRemoteClean), ResultReply(kRemoteCleanReply, kFailure));
    Expect(peer, Request(kRemoteRemove, "n" + Zeros(1)), ResultReply(kRemoteRemoveReply, kSuccess));
    Expect(peer, Request(kRemoteRemoveNotVideo), Reply(22, kRemoteNotVideoReply, ""));
    Expect(peer, Named(kRemoteTable, "n") + Named(kRemoteMd5, "n"), Md5Reply("n", ""));
    EXPECT_TRUE(board->Record().Commands().empty());

    Expect(peer, Request(kRemoteLock), LockReply(kLocked));
    board->Forget();
    for (const std::string name : {"../up", "/etc/passwd", "a//b", "", "x/../../y", "new\nline"}) {
        SCOPED_TRACE(name);
        Expect(peer, Named(kRemoteCreate, name), NameReply(kRemoteOpenReply, name, kFailure));
        Expect(peer, Named(kRemoteResume, name), NameReply(kRemoteOpenReply, name, kFailure));
        Expect(peer, Named(kRemoteTable, name) + Named(kRemoteMd5, name), Md5Reply(name, ""));
        Expect(peer, Request(kRemoteRemove, name + Zeros(1)), ResultReply(kRemoteRemoveReply, kSuccess));
    }
    EXPECT_TRUE(board->Record().Commands().empty());
    Expect(peer, Named(kRemoteMd5, "missing"), Md5Reply("missing", ""));
    Expect(peer, Named(kRemoteTable, "missing") + Named(kRemoteMd5, "a.txt"),
           Md5Reply("a.txt", "0cc175b9c0f1b6a8"));
    Expect(peer, Request(kRemoteRemove, "a.txt" + Zeros(1) + "b/c.mp4" + Zeros(1) + "it's here"),
           ResultReply(kRemoteRemoveReply, kSuccess));
    Expect(peer, Request(kRemoteClean), ResultReply(kRemoteCleanReply, kSuccess));
    const std::vector<std::string> commands = {"rm /home/root/plexa_data/factory//missing.tarvo.bak",
                                               "rm /home/root/plexa_data/factory/a.txt",
                                               "rm /home/root/plexa_data/factory/b/c.mp4",
                                               "rm '/home/root/plexa_data/factory/it'\\''s here'",
                                               "rm -r /home/root/plexa_data/factory/*"};
    EXPECT_EQ(board->Record().Commands(), commands);
    EXPECT_FALSE(board->Root().Exists(std::string(kFolder) + "it's here"));
    const std::string announcesTwoBytes = Le32(2) + "unus" + "x";
    Expect(peer, Request(kRemoteData, announcesTwoBytes), ChunkReply(kFailure));
}

TEST_F(RemoteServer, LongTableIsReadInPieces)
{
    options.files[std::string(kFolder) + "v.mp4.tarvo.bak"] = std::string(10000, '1');
    options.files[std::string(kFolder) + "w.mp4.tarvo.bak"] = "1";
    const Peer peer = Begin();
    const auto piece = [](const std::string &name, std::uint32_t count) {
        return TableReply(name, std::string(count, '1'));
    };
    // The first table stays open until the second is asked for.
    Expect(peer, Named(kRemoteTable, "v.mp4"), piece("v.mp4", 8916));
    Expect(peer, Named(kRemoteTable, "w.mp4"), piece("w.mp4", 1));
    for (const std::uint32_t count : {8916U, 1084U, 0U})
        Expect(peer, Named(kRemoteTable, "v.mp4"), piece("v.mp4", count));
}

TEST_F(RemoteServer, FullDiskFailsTheChunk)
{
    options.dataMebibytes = 1;
    options.folders.clear();
    const Peer peer = Begin();
    Expect(peer, Named(kRemoteCreate, "v.mp4"), NameReply(kRemoteOpenReply, "v.mp4", kSuccess));
    const std::string data(8000, 'x');
    std::size_t stored = 0;
    while (Ask(peer, Chunk(data), kChunkReplySize) == ChunkReply(kSuccess))
        ++stored;
    EXPECT_GT(stored, 100U);
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "v.mp4").size(), stored * data.size());
    EXPECT_EQ(board->Root().Read(std::string(kFolder) + "v.mp4.tarvo.bak").size(), stored);
}

TEST_F(RemoteServer, LargeDigestsKeepTheOrderAndTheLoopFree)
{
    const Peer peer = Begin();
    board->Run("truncate -s 1G /home/root/plexa_data/factory/large");
    ASSERT_TRUE(peer.Send(Named(kRemoteMd5, "large") + Request(kRemoteClean) + Named(kRemoteMd5, "large")));
    const auto begin = Clock::now();
    EXPECT_EQ(AskByUdp(Search()).size(), kSearchReplySize - kHeaderSize);
    EXPECT_LT(Clock::now() - begin, 1s);
    EXPECT_EQ(TakeReplies(peer, kMd5ReplySize + kResultReplySize + kMd5ReplySize, 60000),
              Md5Reply("large", "cd573cfaace07e79") + ResultReply(kRemoteCleanReply, kSuccess) +
                  Md5Reply("large", ""));

    // A connection that goes while a digest is computed takes it along.
    board->Run("truncate -s 1G /home/root/plexa_data/factory/large");
    ASSERT_TRUE(peer.Send(Named(kRemoteMd5, "large")));
    EXPECT_EQ(AskByUdp(StatusRequest(kStatusForgetServer)), ServerReply(kStatusForgetServer, 0));
    EXPECT_TRUE(peer.Ended());
    SetServer("10.20.30.1", 7001, user_);
    const Peer again = AcceptAndWelcome();
    Expect(again, Named(kRemoteMd5, "none"), Md5Reply("none", ""));
}

TEST_F(RemoteServer, ServerThatDoesNotReadIsLeft)
{
    options.files[std::string(kFolder) + "v.tarvo.bak"] = std::string(20'000'000, '1');
    const Peer peer = Begin();
    std::thread sender([&peer] { // answers are thirty times as long as questions
        while (peer.Send(Named(kRemoteTable, "v"))) {
        }
    });
    EXPECT_TRUE(board->Record().WaitForLog("send device param fail: ", 1, 30s));
    EXPECT_EQ(AskByUdp(Search()).size(), kSearchReplySize - kHeaderSize);
    sender.join();
    EXPECT_EQ(Ask(AcceptAndWelcome(), Request(kRemoteLock), kLockReplySize), LockReply(kLocked))
        << "the lock went with the connection";
}
