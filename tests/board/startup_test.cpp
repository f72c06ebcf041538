// SPDX-License-Identifier: MIT
// Start of the daemon: what it logs, when it refuses, and the heartbeat.
#include "common/unique_fd.h"
#include "udp_peer.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace
{

class Startup : public BoardTest
{
protected:
    // The log holds these pieces in this order.
    void ExpectInOrder(const std::vector<std::string> &pieces)
    {
        const std::string log = board->Record().LogText();
        std::size_t from = 0;
        for (const std::string &piece : pieces) {
            const std::size_t found = log.find(piece, from);
            ASSERT_NE(found, std::string::npos) << piece << "\n" << log;
            from = found + piece.size();
        }
    }
    ledboard::UniqueFd Occupy(int type, std::uint16_t port)
    {
        ledboard::UniqueFd fd(board->Network().Socket(AF_INET, type));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(port);
        EXPECT_EQ(bind(fd.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        EXPECT_TRUE(type != SOCK_STREAM || listen(fd.Get(), 1) == 0);
        return fd;
    }
};

class BoardHeartbeat : public BoardTest
{
protected:
    int RefusedConnects()
    {
        return std::stoi(
            board->Run("awk '/^Tcp: [0-9]/ { print $8 }' /proc/net/snmp").output); // AttemptFails
    }
};

} // namespace

TEST_F(Startup, WithoutSerialLineEndsAfterTwoLines)
{
    options.serial = false;
    Boot();
    EXPECT_EQ(board->Daemon().Exit(), 0);
    // The first line comes on standard error.
    EXPECT_EQ(board->Record().Log(),
              (std::vector<std::string>{"open serial fail.",
                                        "[---src/main.cpp::main::35---] serial init fail.",
                                        "[---src/main.cpp::main::49---] init basic object fail."}));
}

TEST_F(Startup, LogsWhatItFindsAndOpens)
{
    options.files["/home/root/plexa_data/server_config"] = "port=65536\nport=10000\nport=9999\n";
    Boot();
    EXPECT_TRUE(board->Record().WaitForLog("Wait for Accept Client."));
    ExpectInOrder({"get screen size: (128, 128)\n", "is fixed ip address.\n",
                   "[---init udp 8878 port success.---]\n", "[---init tcp 8870 port success.---]\n",
                   "tick source: timer of one second", "[---init tcp 10000 port success.---]\n",
                   "[---init udp 10000 port success.---]\n",
                   "::WorkLoop::", "Socket Init Success in Work Loop and Wait for Accept Client.\n"});
}

TEST_F(Startup, AFixedAddressThatIsNotThereIsNotProbedFor)
{
    options.startDaemon = false;
    Boot();
    EXPECT_EQ(board->Run("ifconfig eth0 0.0.0.0 down").status, 0);
    board->Daemon().Start();
    EXPECT_TRUE(board->Record().WaitForLog("Wait for Accept Client."));
    EXPECT_EQ(board->Record().LogText().find("is probed for"), std::string::npos);
    EXPECT_EQ(board->Run("ifconfig eth0 | grep -q UP").status, 0) << "the interface is brought up";
}

TEST_F(Startup, PortsInUseEndIt)
{
    options.startDaemon = false;
    options.files["/home/root/plexa_data/server_config"] = "port=12345\n";
    Boot();
    struct Row {
        int type;
        std::uint16_t port;
        const char *line;
    };
    const Row rows[] = {
        {SOCK_DGRAM, 8878, "udp port 8878 bind fail:  Address already in use, 98.\n"},
        {SOCK_STREAM, 8870, "tcp port 8870 bind fail:  Address already in use, 98.\n"},
        {SOCK_STREAM, 12345, "tcp port 12345 bind fail:  Address already in use, 98.\n"},
        {SOCK_DGRAM, 12345, "udp port 12345 bind fail:  Address already in use, 98.\n"},
    };
    for (const Row &row : rows) {
        const ledboard::UniqueFd taken = Occupy(row.type, row.port);
        board->Forget();
        board->Daemon().Start();
        EXPECT_TRUE(board->Daemon().WaitForExit());
        EXPECT_EQ(board->Daemon().Exit(), 0);
        ExpectInOrder({row.line, "Init Listener Failed In Work Loop and Work Loop be Quit!\n"});
    }
}

TEST_F(Startup, GoesOnWithoutItsDataFolder)
{
    struct Row {
        const char *command;
        std::vector<std::string> lines;
    };
    const std::string failed = "Get User Config Info Failed In Work Loop and Work Loop be Quit!\n";
    const std::string ready = "Socket Init Success in Work Loop and Wait for Accept Client.\n";
    const Row rows[] = {
        {"rm -rf /home/root/plexa_data; ln -s /nowhere /home/root/plexa_data",
         {"make /home/root/plexa_data dir fail!\n", failed, ready}},
        {"rm /home/root/plexa_data; touch /home/root/plexa_data", {failed, ready}},
        {"rm /home/root/plexa_data", {ready}},
    };
    options.startDaemon = false;
    Boot();
    for (const Row &row : rows) {
        board->Run(row.command);
        board->Forget();
        board->Daemon().Start();
        EXPECT_TRUE(board->Record().WaitForLog("Wait for Accept Client."));
        ExpectInOrder(row.lines);
        EXPECT_EQ(board->Record().LogText().find(failed) == std::string::npos, row.lines.size() == 1);
        EXPECT_TRUE(UdpPeer().Ask(SearchBytes(), board->Network().BoardAddress()));
        EXPECT_TRUE(board->Daemon().Kill());
    }
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/server_config"), "port=0\n");
}

TEST_F(Startup, CommandsInheritNoDescriptor)
{
    Boot();
    board->Run("rm /usr/sbin/ethtool /sbin/ethtool");
    board->Root().Write("/usr/sbin/ethtool",
                        "#!/bin/sh\nls -l /proc/$$/fd > /tmp/fds.new; mv /tmp/fds.new /tmp/fds\n", 0755);
    const Peer peer = Peer::Connect(board->Network().BoardAddress(), 8870);
    board->Network().Cable(false);
    board->Network().Cable(true);
    ASSERT_TRUE(board->WaitFor([&] { return board->Root().Exists("/tmp/fds"); }));
    const std::string descriptors = board->Root().Read("/tmp/fds");
    for (const char *const what : {"socket:", "ttyO0", "anon_inode"})
        EXPECT_EQ(descriptors.find(what), std::string::npos) << descriptors;
}

TEST_F(BoardHeartbeat, BeatsOnceASecondAndComesBackToTheSupervisor)
{
    Boot();
    ASSERT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 3; }));
    const auto beats = board->Supervisor().Heartbeats();
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(beats[index].bytes, "server");
        EXPECT_EQ(beats[index].connection, 1U);
    }
    // Each end may be late on a busy machine.
    const std::chrono::duration<double> twoPauses = beats[2].at - beats[0].at;
    EXPECT_GT(twoPauses.count(), 1.2);
    EXPECT_LT(twoPauses.count(), 6.0);
    board->Supervisor().Listen(false);
    EXPECT_TRUE(board->Record().WaitForLog("catch signal: 13"));
    EXPECT_TRUE(board->Record().WaitForLog("send heartbeat fail. errno: 32."));
    board->Forget();
    EXPECT_TRUE(UdpPeer().Ask(SearchBytes(), board->Network().BoardAddress()));
    // Nobody listens when it tries at least twice.
    const int refused = RefusedConnects();
    EXPECT_TRUE(board->WaitFor([&] { return RefusedConnects() >= refused + 2; }, 15s));
    EXPECT_TRUE(board->Supervisor().Heartbeats().empty());
    board->Supervisor().Listen(true);
    ASSERT_TRUE(board->WaitFor([&] { return board->Supervisor().Heartbeats().size() >= 2; }));
    EXPECT_EQ(board->Supervisor().Heartbeats()[0].connection, 2U);
    EXPECT_EQ(board->Supervisor().Heartbeats()[1].connection, 2U);
}
