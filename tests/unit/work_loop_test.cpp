// SPDX-License-Identifier: MIT
// One run of the work loop, observed from inside by a tick function and the remote-server slot.
#include "common/unique_fd.h"
#include "loop/network.h"
#include "remote/device_context.h"
#include "sessions/client_session.h"
#include "sessions/tcp_services.h"
#include "state/monitor_slots.h"
#include "state/services.h"
#include "state/tick.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <vector>

namespace
{

// What the hooks inside the loop share with the test.
struct Inside {
    int probe[2];  // the end in slot 5, and the one that packets for it are written to
    int always[2]; // the end in slot 8, which is readable all the time
    int player[2]; // the session's end and the peer's, of two sessions
    int upload[2];
    llist *playerNode = nullptr;
    int ticks = 0;
    bool tickInRound = false;
    std::vector<std::string> rounds;
};
Inside *s_inside;

void Enlist(int fd, std::int32_t subType)
{
    auto *const session = new SocketSession;
    session->fd = fd;
    session->subType = subType;
    session->buff = new char[wire::kSessionBufferSize];
    AddToList(g_llist, session);
}

void Occupy(MonitorSession *slot, int fd)
{
    slot->fd = fd;
    slot->valid = 1;
}

void OnTick()
{
    s_inside->tickInRound = ++s_inside->ticks > 1;
    if (s_inside->ticks > 1)
        return;
    Enlist(s_inside->player[0], wire::kSessionPlayer);
    Enlist(s_inside->upload[0], wire::kSessionUpload);
    s_inside->playerNode = g_llist->next;
    Occupy(&(*g_sessions)[kSlotProbe], dup(s_inside->probe[0]));
    Occupy(&(*g_sessions)[kSlotRemoteServer], s_inside->always[0]);
}

// Comes last in every round. The first time it waits until the next tick is due and sends a packet to the
// probe, so that the next round finds both readable.
void OnRemoteServer(DeviceContext *)
{
    char packet[64];
    const bool waits = recv(s_inside->probe[0], packet, sizeof packet, MSG_PEEK | MSG_DONTWAIT) > 0;
    s_inside->rounds.push_back(std::string(s_inside->tickInRound ? "tick" : "no tick") +
                               (waits ? ", packet waits" : ", no packet"));
    s_inside->tickInRound = false;
    if (s_inside->rounds.size() == 1) {
        pollfd tick{.fd = (*g_sessions)[kSlotTick].fd, .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&tick, 1, 10000), 1);
        EXPECT_EQ(write(s_inside->probe[1], "not an ARP packet", 17), 17);
    }
    if (s_inside->rounds.size() == 3)
        close(s_inside->always[0]); // select fails
}

} // namespace

TEST(WorkLoop, RunsWithoutMacSkipsTheProbeAfterATickAndLeavesThePlayerOpen)
{
    Inside inside;
    s_inside = &inside;
    for (auto *const pair : {&inside.probe, &inside.always, &inside.player, &inside.upload})
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, *pair), 0);
    ASSERT_EQ(write(inside.always[1], "x", 1), 1);
    WriteTestFile("/etc/network/interfaces", "iface eth0 inet static\n"); // there is no eth0: no MAC
    RemoveTestFile("/home/root/plexa_data");
    const std::unique_ptr<DeviceContext, decltype(&DestroyDeviceContext)> context(new DeviceContext{},
                                                                                  DestroyDeviceContext);
    InitDeviceContext(context.get());
    context->DisposePacket = OnRemoteServer;
    DeviceContext *const before = g_deviceContext;
    g_deviceContext = context.get();
    InsertToTick(OnTick);

    testing::internal::CaptureStdout();
    WorkLoop();
    const std::string log = testing::internal::GetCapturedStdout();

    const char *const lines[] = {"get local mac error and exit work loop!!!\n",
                                 "Get System ENV Info Failed In Work Loop and Work Loop be Quit!\n",
                                 "[---init udp 8878 port success.---]\n[---init tcp 8870 port success.---]\n",
                                 "Socket Init Success in Work Loop and Wait for Accept Client.\n",
                                 "select fail:  Bad file descriptor, 9.\n",
                                 "work loop end.\n"};
    std::size_t from = 0;
    for (const char *const line : lines) {
        const std::size_t found = log.find(line, from);
        ASSERT_NE(found, std::string::npos) << line << log;
        from = found;
    }
    EXPECT_EQ(inside.rounds,
              (std::vector<std::string>{"no tick, no packet", "tick, packet waits", "no tick, no packet"}));
    EXPECT_EQ(ReadTestFile("/home/root/plexa_data/server_config"), "port=0\n");
    EXPECT_EQ(g_sessions, nullptr);
    EXPECT_EQ(g_llist, nullptr);
    EXPECT_EQ(context->monitor, nullptr);
    EXPECT_EQ(fcntl(inside.upload[0], F_GETFD), -1);
    EXPECT_NE(fcntl(inside.player[0], F_GETFD), -1);
    auto *const player = static_cast<SocketSession *>(inside.playerNode->data);
    EXPECT_EQ(player->fd, inside.player[0]);
    delete[] player->buff;
    delete player;
    delete inside.playerNode;
    RemoveFromTick(OnTick);
    g_deviceContext = before;
    for (const int fd : {inside.probe[0], inside.probe[1], inside.always[1], inside.player[0],
                         inside.player[1], inside.upload[1]})
        close(fd);
}

// Without a descriptor the client can neither be accepted nor turned away, and the listener stays readable.
TEST(AcceptClient, PausesWhileThereIsNoDescriptorAtAll)
{
    const ledboard::UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socklen_t size = sizeof address.sun_family; // the kernel picks a name
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), size), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    size = sizeof address;
    getsockname(listener.Get(), reinterpret_cast<sockaddr *>(&address), &size);
    const ledboard::UniqueFd client(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.Get(), reinterpret_cast<const sockaddr *>(&address), size), 0);
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit standardOnly{.rlim_cur = 3, .rlim_max = before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &standardOnly);

    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 3; ++round)
        EXPECT_EQ(AcceptClient(listener.Get(), nullptr), 0);
    const auto waited = std::chrono::steady_clock::now() - start;

    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_GE(waited, std::chrono::milliseconds(3 * 20));
}
