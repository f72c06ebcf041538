// SPDX-License-Identifier: MIT
// The board's connection to a remote management server, which the test plays.
#include "remote_server.h"

#include <sys/stat.h>

#include <thread>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace
{

class RemoteConnect : public RemoteServer
{
};

} // namespace

TEST_F(RemoteConnect, LoginParametersAndHeartbeats)
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

TEST_F(RemoteConnect, AServerThatSendsRubbishIsTriedAgainLater)
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

TEST_F(RemoteConnect, SetByTheToolAndForgotten)
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

TEST_F(RemoteConnect, ServerThatDoesNotReadIsLeft)
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
