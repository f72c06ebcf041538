// SPDX-License-Identifier: MIT
// What a remote management server, which the test plays, does on a board.
#include "player_codes.h"
#include "remote_server.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

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
    ASSERT_TRUE(peer.Send(Request(kRemoteUnlock)));
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvNoFinish, 2)) << "the next session was not";

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
    // Hidden names are not listed.
    const std::string film = "caf\xE9/na\xEFve/f\xFFlm";
    Expect(peer, Request(kRemoteListFiles),
           ListReply(kRemoteFilesReply, "\xE6\x96\x87\\b" + Zeros(1) + film + Zeros(2)));
    Expect(peer, Request(kRemoteRemoveNotVideo), Reply(22, kRemoteNotVideoReply, ""));
    EXPECT_FALSE(board->Root().Exists(kFolder + film));
    EXPECT_TRUE(board->Root().Exists(std::string(kFolder) + ".hidden/.file"));
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
