// SPDX-License-Identifier: MIT
#include "addressing/arp_socket.h"
#include "addressing/link_local_claim.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace
{

using Action = LinkLocalClaim::Action;
using Moment = LinkLocalClaim::Moment;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr MacAddress kOther = {2, 0, 0, 0, 0, 99};

MacAddress Mac(unsigned number)
{
    return {2, 'L', 'E', 'D', static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

// Ticks until the claim asks for an action: 'p' probe, 'c' claim, 'a' announce, '-' nothing within `limit`.
char Next(LinkLocalClaim *claim, Moment *now, seconds limit = seconds(5))
{
    for (const Moment end = *now + limit; *now <= end; *now += seconds(1)) {
        const Action action = claim->Tick(*now);
        if (action != Action::kNothing)
            return "-pcag"[static_cast<int>(action)];
    }
    return '-';
}

// Ticks through the whole claim; false if the actions differ from its own.
bool ClaimAddress(LinkLocalClaim *claim, Moment *now, seconds firstWait = seconds(5))
{
    std::string actions(1, Next(claim, now, firstWait));
    while (actions.back() != '-')
        actions += Next(claim, now);
    return actions == "pppcaa-" || actions == "pppca-";
}

HeardArp FromOther(std::uint32_t senderAddress, std::uint32_t targetAddress, bool isRequest = true)
{
    return {kOther, senderAddress, targetAddress, isRequest};
}

TEST(LinkLocalClaim, ProbesClaimsAndAnnouncesInTime)
{
    std::set<std::uint32_t> addresses;
    std::set<seconds::rep> firstWaits;
    std::set<seconds::rep> pauses;
    for (unsigned number = 0; number < 200; ++number) {
        const Moment start{seconds(1000 + number * 7)};
        LinkLocalClaim claim;
        LinkLocalClaim again;
        claim.Start(Mac(number), start);
        again.Start(Mac(number), start + seconds(77777));
        EXPECT_EQ(claim.Address(), again.Address()) << "the same board, the same address";
        EXPECT_GE(claim.Address(), 0xA9FE0100U);
        EXPECT_LE(claim.Address(), 0xA9FEFEFFU);
        addresses.insert(claim.Address());

        Moment now = start;
        Moment last = start;
        std::string actions;
        std::vector<seconds::rep> gaps;
        for (int count = 0; count < 6; ++count) {
            actions += Next(&claim, &now);
            gaps.push_back(std::chrono::duration_cast<seconds>(now - last).count());
            last = now;
        }
        EXPECT_EQ(actions, "pppca-");
        EXPECT_EQ(gaps[3], 2) << "claimed two seconds after the last probe";
        EXPECT_EQ(gaps[4], 2) << "announced again two seconds later";
        firstWaits.insert(gaps[0]);
        pauses.insert({gaps[1], gaps[2]});
    }
    EXPECT_GT(addresses.size(), 190U);
    EXPECT_EQ(firstWaits, (std::set<seconds::rep>{0, 1}));
    EXPECT_EQ(pauses, (std::set<seconds::rep>{1, 2}));
}

TEST(LinkLocalClaim, MeasuresTimeAndNotTicks)
{
    LinkLocalClaim claim;
    Moment now{seconds(5)};
    claim.Start(Mac(1), now);
    int actions = 0;
    for (; now < Moment{seconds(8)}; now += milliseconds(10))
        actions += claim.Tick(now) == Action::kNothing ? 0 : 1;
    EXPECT_LE(actions, 4);
    EXPECT_FALSE(claim.Holds());
    now += seconds(600); // a loop that was blocked skips nothing either
    EXPECT_EQ(claim.Tick(now), Action::kProbe);
    EXPECT_EQ(claim.Tick(now), Action::kNothing);
}

TEST(LinkLocalClaim, JudgesPackets)
{
    enum Verdict { kIgnored, kNextCandidate, kDefended };
    constexpr std::uint32_t kMine = 1; // stands for the claim's address
    const struct {
        const char *name;
        HeardArp packet;
        Verdict probing;
        Verdict holding;
    } rows[] = {
        {"request of its owner", FromOther(kMine, 7), kNextCandidate, kDefended},
        {"reply of its owner", FromOther(kMine, 7, false), kNextCandidate, kDefended},
        {"announcement of its owner", FromOther(kMine, kMine), kNextCandidate, kDefended},
        {"another's probe for it", FromOther(0, kMine), kNextCandidate, kIgnored},
        {"reply without an address", FromOther(0, kMine, false), kIgnored, kIgnored},
        {"question for it", FromOther(7, kMine), kIgnored, kIgnored},
        {"another address", FromOther(7, 8), kIgnored, kIgnored},
        {"our probe looped back", {Mac(3), 0, kMine, true}, kIgnored, kIgnored},
        {"our announcement looped back", {Mac(3), kMine, kMine, true}, kIgnored, kIgnored},
    };
    for (const auto &row : rows) {
        for (const bool holding : {false, true}) {
            LinkLocalClaim claim;
            Moment now{seconds(100)};
            claim.Start(Mac(3), now);
            ASSERT_EQ(Next(&claim, &now), 'p');
            if (holding) {
                while (Next(&claim, &now) != '-') {
                }
            }
            const std::uint32_t address = claim.Address();
            HeardArp packet = row.packet;
            if (packet.senderAddress == kMine)
                packet.senderAddress = address;
            if (packet.targetAddress == kMine)
                packet.targetAddress = address;
            const Verdict verdict = holding ? row.holding : row.probing;
            EXPECT_EQ(claim.Hear(packet, now), verdict == kDefended ? Action::kAnnounce : Action::kNothing)
                << row.name << holding;
            EXPECT_EQ(claim.Address() != address, verdict == kNextCandidate) << row.name << holding;
            EXPECT_EQ(claim.Holds(), holding) << row.name;
        }
    }
}

TEST(LinkLocalClaim, DefendsOnceInTenSecondsThenMoves)
{
    LinkLocalClaim claim;
    Moment now{seconds(100)};
    claim.Start(Mac(4), now);
    ASSERT_TRUE(ClaimAddress(&claim, &now));
    const std::uint32_t first = claim.Address();
    const HeardArp conflict = FromOther(first, first);
    EXPECT_EQ(claim.Hear(conflict, now), Action::kAnnounce);
    EXPECT_EQ(claim.Hear(conflict, now + seconds(10)), Action::kAnnounce);
    EXPECT_EQ(claim.Hear(conflict, now + milliseconds(19900)), Action::kGiveUp);
    EXPECT_NE(claim.Address(), first);
    EXPECT_FALSE(claim.Holds());
    now += seconds(20);
    EXPECT_TRUE(ClaimAddress(&claim, &now)) << "the next candidate is probed for like the first";

    const std::uint32_t second = claim.Address();
    claim.Restart(now); // the address was taken from the interface: the same is put back
    EXPECT_TRUE(ClaimAddress(&claim, &now));
    EXPECT_EQ(claim.Address(), second);
    claim.Stop();
    EXPECT_EQ(claim.Hear(FromOther(second, second), now), Action::kNothing);
    EXPECT_EQ(Next(&claim, &now), '-');
    claim.Start(Mac(4), now);
    EXPECT_EQ(claim.Address(), second) << "the last address is tried first";
}

TEST(LinkLocalClaim, TriesOnceAMinuteAfterTenConflicts)
{
    LinkLocalClaim claim;
    Moment now{seconds(100)};
    claim.Start(Mac(5), now);
    for (int conflict = 1; conflict <= 12; ++conflict) {
        const Moment before = now;
        ASSERT_EQ(Next(&claim, &now, seconds(90)), 'p') << conflict;
        if (conflict > 10)
            EXPECT_GE(now - before, seconds(60)) << conflict;
        else
            EXPECT_LE(now - before, seconds(1)) << conflict;
        claim.Hear(FromOther(claim.Address(), 7), now);
    }
    // Conflicts during the wait change the candidate and not the time.
    const Moment before = now;
    for (int second = 0; second < 50; ++second) {
        now += seconds(1);
        claim.Hear(FromOther(claim.Address(), 7), now);
    }
    ASSERT_EQ(Next(&claim, &now), '-');
    ASSERT_TRUE(ClaimAddress(&claim, &now, seconds(15)));
    EXPECT_LT(now - before, seconds(80));
    // Held for a minute, it counts as won: the next move is a quick one again.
    now += seconds(60);
    const HeardArp conflict = FromOther(claim.Address(), 7);
    EXPECT_EQ(claim.Hear(conflict, now), Action::kAnnounce);
    EXPECT_EQ(claim.Hear(conflict, now), Action::kGiveUp);
    EXPECT_EQ(Next(&claim, &now), 'p');
}

TEST(ArpPacket, OnlyIpv4OnEthernetIsDecoded)
{
    const std::string hardware("\0\1", 2); // Ethernet
    const std::string protocol("\x08\0", 2);
    const std::string sizes("\6\4", 2); // of a MAC and of an IPv4 address
    const std::string reply("\0\2", 2);
    const std::string senderMac("\2\x4c\x45\x44\0\7", 6);
    const std::string senderAddress("\xa9\xfe\x10\x20", 4);
    const std::string targetMac("\2\0\0\0\0\1", 6);
    const std::string targetAddress("\x0a\1\2\3", 4);
    const std::string good =
        hardware + protocol + sizes + reply + senderMac + senderAddress + targetMac + targetAddress;
    constexpr std::size_t kHardwareAt = 0;
    constexpr std::size_t kProtocolAt = 2;
    constexpr std::size_t kSizesAt = 4;
    constexpr std::size_t kOperationAt = 6;
    const auto with = [&](std::size_t place, char high, char low) {
        return std::string(good).replace(place, 2, std::string{high, low});
    };
    const struct {
        const char *name;
        std::string packet;
        bool heard;
    } rows[] = {
        {"valid", good, true},
        {"padded to the shortest Ethernet frame", good + std::string(18, '\0'), true},
        {"empty", "", false},
        {"one byte short", good.substr(0, 27), false},
        {"token ring", with(kHardwareAt, 0, 6), false},
        {"IPv6", with(kProtocolAt, '\x86', '\xdd'), false},
        {"long hardware address", with(kSizesAt, 8, 4), false},
        {"long protocol address", with(kSizesAt, 6, 16), false},
        {"operation 0", with(kOperationAt, 0, 0), false},
        {"reverse request", with(kOperationAt, 0, 3), false},
        {"operation 256", with(kOperationAt, 1, 0), false},
    };
    for (const auto &row : rows) {
        const auto packet = DecodeArp(wire::BytesAt(row.packet.data(), row.packet.size()));
        ASSERT_EQ(packet.has_value(), row.heard) << row.name;
        if (!packet)
            continue;
        EXPECT_EQ(packet->sender, (MacAddress{2, 0x4c, 0x45, 0x44, 0, 7}));
        EXPECT_EQ(packet->senderAddress, 0xA9FE1020U);
        EXPECT_EQ(packet->targetAddress, 0x0A010203U);
        EXPECT_FALSE(packet->isRequest);
    }
}

} // namespace
