// SPDX-License-Identifier: MIT
// The list, and the registry that ages sessions with it.
#include "sessions/llist.h"

#include "sessions/client_session.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace
{

std::vector<void *> Elements(const llist *list)
{
    std::vector<void *> elements;
    for (const llist *node = list->next; node != nullptr; node = node->next)
        elements.push_back(node->data);
    return elements;
}

// Sessions in the registry for as long as the test runs.
class Registry : public testing::Test
{
protected:
    SocketSession &Add(std::int32_t ip, std::int32_t subType)
    {
        auto *const session = new SocketSession;
        session->ip = ip;
        session->subType = subType;
        sessions_.push_back(session);
        RegisterClientConnect(session);
        return *session;
    }
    void TearDown() override
    {
        for (SocketSession *const session : sessions_) {
            UnregisterClientConnect(session);
            delete session;
        }
    }
    static void Tick(int count)
    {
        for (int tick = 0; tick < count; ++tick)
            ClientSessionTick();
    }

private:
    std::vector<SocketSession *> sessions_;
};

} // namespace

TEST(List, KeepsOrderAndUnlinksTheFirstMatchOnly)
{
    int a = 0;
    int b = 0;
    int stranger = 0;
    llist *const list = NewLList();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(GetListLens(list), 0);
    EXPECT_EQ(AddToList(list, &a), 1);
    EXPECT_EQ(AddToList(list, &b), 1);
    EXPECT_EQ(AddToList(list, &a), 1);
    EXPECT_EQ(Elements(list), (std::vector<void *>{&a, &b, &a}));
    RemoveFromList(list, &stranger);
    EXPECT_EQ(GetListLens(list), 3);
    RemoveFromList(list, &a);
    EXPECT_EQ(Elements(list), (std::vector<void *>{&b, &a}));
    RemoveFromList(list, &a);
    RemoveFromList(list, &a);
    EXPECT_EQ(Elements(list), std::vector<void *>{&b});
    EXPECT_EQ(AddToList(list, &a), 1); // the end was found again after its node went
    EXPECT_EQ(Elements(list), (std::vector<void *>{&b, &a}));
    RemoveFromList(list, &b);
    RemoveFromList(list, &a);
    FreeLList(list);
}

TEST(List, TakesNull)
{
    int element = 0;
    EXPECT_EQ(AddToList(nullptr, &element), 0);
    EXPECT_EQ(GetListLens(nullptr), 0);
    RemoveFromList(nullptr, &element);
    FreeLList(nullptr);
}

TEST_F(Registry, MarksAtTheFortySecondTickAllButThePlayer)
{
    const SocketSession &upload = Add(1, wire::kSessionUpload);
    const SocketSession &player = Add(2, wire::kSessionPlayer);
    const SocketSession &modem = Add(3, wire::kSessionModem);
    Tick(41);
    EXPECT_EQ(upload.connectFlag, 1);
    EXPECT_EQ(modem.connectFlag, 1);
    Tick(1);
    EXPECT_EQ(upload.connectFlag, 0);
    EXPECT_EQ(modem.connectFlag, 0);
    Tick(100);
    EXPECT_EQ(player.connectFlag, 1);
    EXPECT_EQ(player.timeout, 142);
}

TEST_F(Registry, SearchRefreshesTheFirstSessionOfThePeerOnly)
{
    const SocketSession &other = Add(7, wire::kSessionSettings);
    const SocketSession &first = Add(8, wire::kSessionUpload);
    const SocketSession &second = Add(8, wire::kSessionSettings);
    Tick(30);
    UpdateClientSession(8);
    Tick(12);
    EXPECT_EQ(first.timeout, 12);
    EXPECT_EQ(first.connectFlag, 1);
    EXPECT_EQ(second.connectFlag, 0);
    EXPECT_EQ(other.connectFlag, 0);
}

TEST_F(Registry, FindsLoggedInSessionsWithADescriptorOfTheirOwn)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    SocketSession &notLoggedIn = Add(1, wire::kSessionUpload); // its sub-type is 0 as well
    notLoggedIn.fd = ends[0];
    SocketSession &player = Add(1, wire::kSessionPlayer);
    player.session = kPlayerChannel;
    EXPECT_EQ(FindSession(wire::kSessionUpload).result, FoundSession::kNone);
    EXPECT_EQ(FindSession(wire::kSessionPlayer).result, FoundSession::kNone); // closed
    player.fd = ends[0];
    {
        const FoundSession found = FindSession(wire::kSessionPlayer);
        ASSERT_EQ(found.result, FoundSession::kFound);
        EXPECT_EQ(found.fd, ends[0]);
        close(ends[0]); // the session ends meanwhile
        EXPECT_EQ(write(found.socket.Get(), "x", 1), 1);
    }
    char byte = 0;
    EXPECT_EQ(read(ends[1], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(read(ends[1], &byte, 1), 0); // the duplicate is gone too
    close(ends[1]);
}
