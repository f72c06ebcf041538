// SPDX-License-Identifier: MIT
// What the work loop must survive; after each of them discovery answers and no more descriptors are open.
#include "firmware_packets.h"
#include "udp_peer.h"

#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <sstream>

using namespace std::chrono_literals;

namespace
{

class Survival : public BoardTest
{
protected:
    Peer Connect() const { return Peer::Connect(board->Network().BoardAddress(), 8870); }
    bool Answers() const
    {
        const auto reply = pc.Ask(SearchBytes(), board->Network().BoardAddress());
        return reply && reply->bytes.size() == kSearchReplySize;
    }
    // Processor time that the process has used, in hundredths of a second.
    static long Used(pid_t pid)
    {
        std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
        std::string field;
        long used = 0;
        for (int index = 1; file >> field && index <= 15; ++index)
            used += index >= 14 ? std::stol(field) : 0;
        return used;
    }
    // From now to the second heartbeat after now.
    long UsedWhileIdle(pid_t pid) const
    {
        const long before = Used(pid);
        const std::size_t beats = board->Supervisor().Heartbeats().size();
        EXPECT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= beats + 2; }));
        return Used(pid) - before;
    }
    void ConnectTwoThousandTimes();

    UdpPeer pc;
};

void Survival::ConnectTwoThousandTimes()
{
    constexpr std::size_t kKept = 1024 - 64; // descriptors, whatever the limit: select can watch no more
    const rlimit many{.rlim_cur = 4096, .rlim_max = 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &many), 0);
    Boot();
    const Unharmed unharmed(*board);
    const std::size_t before = board->Daemon().OpenDescriptors();
    {
        const Peer early = Connect();
        EXPECT_TRUE(early.Send(Login(kFirmware)));
        EXPECT_EQ(early.Take(8).size(), 8U);
        std::vector<Peer> crowd;
        for (int count = 0; count < 2000; ++count) {
            crowd.push_back(Connect());
            ASSERT_TRUE(Answers()) << count; // also keeps the backlog of one from overflowing
        }
        ASSERT_TRUE(board->Record().WaitForLog("too many clients, the connection is closed.",
                                               2000 - (kKept - before)));
        const std::size_t open = board->Daemon().OpenDescriptors();
        EXPECT_LE(open, kKept);
        EXPECT_GE(open, kKept - 1); // a thread that waits in accept holds a number
        std::size_t kept = 0;
        for (const Peer &peer : crowd)
            kept += peer.Silent(0) ? 1 : 0;
        EXPECT_NEAR(static_cast<double>(kept), static_cast<double>(open - before - 1), 1);
        EXPECT_LT(UsedWhileIdle(board->Daemon().Pid()), 30) << "the loop spins";

        EXPECT_TRUE(early.Send(AskVersion()));
        EXPECT_EQ(early.Take(kVersionReplySize).size(), kVersionReplySize);
        EXPECT_TRUE(early.Send(AskArchive(100, 0))); // a file can be opened, a command started
        EXPECT_TRUE(board->WaitFor([&] { return board->Root().Exists("/tmp/QV_Firmware/new_version.gz"); }));
        board->Network().Cable(false);
        EXPECT_TRUE(board->Record().WaitForLog("netlinck flag 0"));
        board->Network().Cable(true);
        EXPECT_TRUE(board->Record().WaitForCommand("ethtool eth0"));
        EXPECT_TRUE(board->Record().WaitForLog("netlinck flag 1"));
    }
    unharmed.Check("2,000 connections");
}

} // namespace

TEST_F(Survival, TwoThousandConnectionsWithALimitOf1024)
{
    options.softFileLimit = 1024;
    ConnectTwoThousandTimes();
}

TEST_F(Survival, TwoThousandConnectionsWithALimitOf8192)
{
    options.softFileLimit = 8192;
    ConnectTwoThousandTimes();
}

TEST_F(Survival, PeerThatNeverReads)
{
    Boot();
    const Unharmed unharmed(*board);
    const Peer peer = Connect();
    EXPECT_TRUE(peer.Send(Login(kFirmware)));
    EXPECT_EQ(peer.Take(8).size(), 8U);
    std::string asks;
    for (int count = 0; count < 200; ++count)
        asks += AskVersion();
    const auto begin = std::chrono::steady_clock::now();
    bool ended = false;
    for (std::size_t next = 0; !ended && std::chrono::steady_clock::now() - begin < 30s;) {
        const ssize_t sent =
            send(peer.Get(), asks.data() + next, asks.size() - next, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0)
            next = (next + static_cast<std::size_t>(sent)) % asks.size();
        ended = sent == -1 && errno != EAGAIN;
        ASSERT_TRUE(Answers()) << "the loop is blocked for longer than three seconds";
    }
    EXPECT_TRUE(ended);
    EXPECT_TRUE(board->Record().WaitForLog("connecting error, one client quit!"));
    unharmed.Check("a peer that never reads");
}

TEST_F(Survival, SignalsInterruptTheWaitOnly)
{
    Boot();
    const Unharmed unharmed(*board);
    for (int count = 0; count < 300; ++count) {
        EXPECT_TRUE(board->Daemon().Signal(SIGUSR1));
        ASSERT_TRUE(Answers()) << count;
    }
    // All of these may have come while the loop was not waiting.
    EXPECT_TRUE(board->WaitFor([&] {
        return board->Daemon().Signal(SIGUSR1) &&
               board->Record().WaitForLog("select was interrupted.", 1, 50ms);
    }));
    EXPECT_TRUE(board->Daemon().Running());
    unharmed.Check("signals");
}

// The reader of the log goes away after the first line.
TEST_F(Survival, BrokenStandardOutput)
{
    Boot();
    EXPECT_TRUE(board->Daemon().Kill());
    board->Forget();
    std::string command; // with the emulator before it, where the daemon needs one
    for (const std::string &word : options.prefix)
        command += word + " ";
    board->Run("cd /home/root; (" + command + "/usr/bin/ledboardd 2>&1 | head -n 1) > /dev/null 2>&1 &");
    ASSERT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 2; }));
    ASSERT_TRUE(Answers());
    for (int count = 0; count < 20; ++count) { // each of them prints
        const Peer peer = Connect();
        EXPECT_TRUE(peer.Send(Login(kSettings)));
        EXPECT_EQ(peer.Take(8).size(), 8U) << count;
    }
    // The heartbeat's own broken pipe is caught; nothing reads the line about it.
    board->Supervisor().Listen(false);
    const std::size_t beats = board->Supervisor().Heartbeats().size();
    board->Supervisor().Listen(true);
    EXPECT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() > beats; }, 10s));
    const std::string program = options.prefix.empty() ? "ledboardd" : options.prefix.front();
    EXPECT_EQ(board->Run("pidof " + program + " | wc -w").output, "1\n");
    std::istringstream line(
        board->Run("cat /proc/$(pidof " + program + ")/stat | cut -d ' ' -f 14,15").output);
    long user = 100;
    long system = 100;
    line >> user >> system;
    EXPECT_LT(user + system, 60) << "something spins";
    EXPECT_TRUE(Answers());
}
