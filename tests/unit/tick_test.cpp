// SPDX-License-Identifier: MIT
#include "state/tick.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace
{

std::string s_calls;

void A()
{
    s_calls += 'a';
}
void B()
{
    s_calls += 'b';
}
void C()
{
    s_calls += 'c';
}
void D()
{
    s_calls += 'd';
}
void RemovesB()
{
    s_calls += 'r';
    RemoveFromTick(B);
}

std::string CallsOfOneTick()
{
    s_calls.clear();
    CallTickFunctions();
    return s_calls;
}

void EmptyTable()
{
    for (int slot = 0; slot < kTickSlots; ++slot) {
        for (const TickFunction fn : {A, B, C, D, RemovesB})
            RemoveFromTick(fn);
    }
}

constexpr std::uint32_t kTick = 98; // the first word of a tick
constexpr std::uint32_t kOne = 1;   // its second word

// What the board's timer driver sends: a netlink header and two words.
std::string DriverMessage(std::uint32_t first, std::uint32_t second, std::size_t size = 24)
{
    constexpr std::uint32_t kLength = 24;
    constexpr std::uint32_t kTypeAndFlags = 3;
    constexpr std::uint32_t kSequence = 0;
    constexpr std::uint32_t kPortId = 0;
    const std::uint32_t words[6] = {kLength, kTypeAndFlags, kSequence, kPortId, first, second};
    std::string message(reinterpret_cast<const char *>(words), sizeof words);
    message.resize(size);
    return message;
}

class TickSource : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends_), 0);
        fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        // The counter still counts earlier messages: bring it to a known state, just after a tick.
        while (Feed(DriverMessage(kTick, kOne)) != 1) {
        }
    }
    void TearDown() override
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    int Feed(const std::string &message)
    {
        EXPECT_EQ(write(ends_[1], message.data(), message.size()), static_cast<ssize_t>(message.size()));
        return ReadTick(ends_[0]);
    }
    int Fd() const { return ends_[0]; }

private:
    int ends_[2] = {-1, -1};
};

} // namespace

TEST(TickTable, FillsTheFirstEmptySlotAndClearsTheFirstMatch)
{
    EmptyTable();
    InsertToTick(nullptr);
    RemoveFromTick(nullptr);
    EXPECT_EQ(CallsOfOneTick(), "");
    for (const TickFunction fn : {A, B, A, B, A})
        InsertToTick(fn);
    EXPECT_EQ(CallsOfOneTick(), "ababa");
    InsertToTick(B); // full: ignored
    RemoveFromTick(A);
    EXPECT_EQ(CallsOfOneTick(), "baba");
    InsertToTick(B); // into the hole at the front
    EXPECT_EQ(CallsOfOneTick(), "bbaba");
    EmptyTable();
    EXPECT_EQ(CallsOfOneTick(), "");
}

TEST(TickTable, MayBeChangedByATickFunction)
{
    EmptyTable();
    InsertToTick(RemovesB);
    InsertToTick(B);
    InsertToTick(A);
    EXPECT_EQ(CallsOfOneTick(), "ra");
    EmptyTable();
}

TEST(TickTable, WhatMustNotGetLostWaitsForAnEmptySlot)
{
    EmptyTable();
    for (const TickFunction fn : {RemovesB, B, A, A, A})
        InsertToTick(fn);
    EXPECT_EQ(SlotsInTick(A), 3);
    InsertToTickOrWait(C);
    InsertToTickOrWait(C); // once is enough
    InsertToTickOrWait(A); // is in the table already
    InsertToTickOrWait(D); // for the next slot
    EXPECT_EQ(CallsOfOneTick(), "raaa") << "the slot of B is empty when the tick ends";
    EXPECT_EQ(CallsOfOneTick(), "rcaaa");
    RemoveFromTick(D); // no longer waits
    RemoveFromTick(A);
    EXPECT_EQ(CallsOfOneTick(), "rcaa");
    EXPECT_EQ(CallsOfOneTick(), "rcaa");
    InsertToTickOrWait(D); // nothing to wait for
    EXPECT_EQ(CallsOfOneTick(), "rcdaa");
    EmptyTable();
}

TEST_F(TickSource, CountsDriverMessagesOf33Milliseconds)
{
    std::vector<int> gaps; // messages from one tick to the next
    int messages = 0;
    while (gaps.size() < 34) {
        ++messages;
        if (Feed(DriverMessage(kTick, kOne)) != 1)
            continue;
        gaps.push_back(messages);
        messages = 0;
    }
    int total = 0;
    for (const int gap : gaps) {
        EXPECT_TRUE(gap == 30 || gap == 31) << gap;
        total += gap;
    }
    EXPECT_NEAR(total * 33, 34 * 1000, 33); // nothing is lost between ticks
}

TEST_F(TickSource, IgnoresOtherMessages)
{
    EXPECT_EQ(ReadTick(Fd()), -1); // nothing to receive
    EXPECT_EQ(Feed(""), -1);
    for (int round = 0; round < 40; ++round) {
        EXPECT_EQ(Feed(DriverMessage(kTick - 1, kOne)), 0);
        EXPECT_EQ(Feed(DriverMessage(kTick, kOne + 1)), 0);
        EXPECT_EQ(Feed(DriverMessage(kTick, kOne, 23)), 0);
        EXPECT_EQ(Feed("x"), 0);
    }
    EXPECT_EQ(Feed(DriverMessage(kTick, kOne, 24) + std::string(200, 'x')), 0); // counts once, is cut
}
