// SPDX-License-Identifier: MIT
// TCP sessions: login, framing, and when a session ends.
#include "firmware_packets.h"
#include "player_codes.h"
#include "session_packets.h"
#include "setting_codes.h"
#include "udp_peer.h"

using namespace std::chrono_literals;

namespace
{

constexpr std::uint32_t kUnbound = 5; // the first sub-type without a service
constexpr std::uint32_t kModemCommandStatus = 1;
constexpr std::size_t kModemStatusSize = 308;

class Sessions : public BoardTest
{
protected:
    void SetUp() override { options.player = false; }
    Peer Connect() const { return Peer::Connect(board->Network().BoardAddress(), 8870); }
    Peer LogIn(std::uint32_t subType) const
    {
        Peer peer = Connect();
        EXPECT_TRUE(peer.Send(Login(subType)));
        EXPECT_EQ(peer.Take(8), LoginReply(subType == kModem ? kLoginModem : kLoginAccepted));
        return peer;
    }
    void ExpectCount(const std::string &line, std::size_t count)
    {
        EXPECT_TRUE(board->Record().WaitForLog(line, count));
        EXPECT_FALSE(board->Record().WaitForLog(line, count + 1, 0ms));
    }
};

class SessionTimeout : public Sessions
{
};

class SessionLink : public Sessions
{
};

} // namespace

TEST_F(Sessions, LoginTable)
{
    Boot();
    const Unharmed unharmed(*board);
    struct Row {
        unsigned others; // modem sessions that are open already
        std::uint32_t subType;
        char status;
        bool kept;
    };
    const Row rows[] = {
        {0, kUpload, kLoginAccepted, true},    {0, kSettings, kLoginAccepted, true},
        {0, kFirmware, kLoginAccepted, true},  {0, kPlayer, kLoginAccepted, true},
        {0, kModem, kLoginModem, true},        {1, kUpload, kLoginAccepted, true},
        {1, kFirmware, kLoginAccepted, true},  {1, kUnbound, kLoginAccepted, true},
        {2, kUpload, kLoginRefused, false},    {2, kSettings, kLoginRefused, false},
        {2, kFirmware, kLoginRefused, false},  {2, kUnbound, kLoginRefused, false},
        {2, 0xFFFFFFFF, kLoginRefused, false}, {0, 0xFFFFFFFF, kLoginAccepted, true},
        {2, kPlayer, kLoginAccepted, true},    {2, kModem, kLoginModem, true},
    };
    for (const Row &row : rows) {
        {
            std::vector<Peer> others;
            for (unsigned other = 0; other < row.others; ++other)
                others.push_back(LogIn(kModem));
            const Peer peer = Connect();
            EXPECT_TRUE(peer.Send(Login(row.subType) + "what follows is ignored"));
            EXPECT_EQ(peer.Take(8), LoginReply(row.status)) << row.others << " " << row.subType;
            EXPECT_EQ(row.kept ? peer.Silent(30) : peer.Ended(), true) << row.others << " " << row.subType;
            if (row.subType == kUnbound && row.kept) { // nothing is bound: the next packet is a login again
                EXPECT_TRUE(peer.Send(Login(0x7FFFFFFF)));
                EXPECT_EQ(peer.Take(8), LoginReply(kLoginAccepted));
                EXPECT_TRUE(peer.Send(Login(kModem)));
                EXPECT_EQ(peer.Take(8), LoginReply(kLoginModem));
            }
        }
        unharmed.Check("login " + std::to_string(row.subType));
    }
}

TEST_F(Sessions, SecondFirmwareClientLearnsOfTheUpgrade)
{
    Boot();
    const Peer first = LogIn(kFirmware);
    for (const unsigned others : {0U, 2U}) {
        std::vector<Peer> sessions;
        for (unsigned other = 0; other < others; ++other)
            sessions.push_back(LogIn(kModem));
        const Peer second = Connect();
        EXPECT_TRUE(second.Send(Login(kFirmware)));
        EXPECT_EQ(second.Take(8), LoginReply(kLoginUpgrading));
        EXPECT_TRUE(second.Ended());
    }
    ExpectCount("version_thread.cpp::LogIn::512---]", 1);
    ExpectCount("version_thread.cpp::LogOut::519---]", 0); // the refused one was never logged in
    EXPECT_TRUE(first.Send(AskVersion()));
    EXPECT_EQ(first.Take(kVersionReplySize).size(), kVersionReplySize);
}

// A stray probe must not start an upload, which would remove the boot picture.
TEST_F(Sessions, WhatIsNoLoginIsClosedWithoutAnAnswer)
{
    options.files["/boot/disp.bin"] = "picture";
    Boot();
    const Unharmed unharmed(*board);
    for (const std::uint32_t length : {0U, 1U, 4U, 7U}) {
        const Peer peer = Connect();
        EXPECT_TRUE(peer.Send(Le32(length) + Le32(kUpload)));
        EXPECT_TRUE(peer.Ended()) << length;
        const Peer half = Connect();
        EXPECT_TRUE(half.Send(Le32(length)));
        EXPECT_EQ(length <= 4 ? half.Ended() : half.Silent(50), true) << length;
    }
    const Peer waiting = Connect();
    EXPECT_TRUE(waiting.Send("GET / HTTP/1.0\r\n\r\n")); // a length of half a gigabyte
    EXPECT_TRUE(waiting.Silent(50));
    EXPECT_TRUE(waiting.Send(std::string(9215, 'x'))); // and the buffer is full
    EXPECT_TRUE(waiting.Ended());
    EXPECT_EQ(board->Root().Read("/boot/disp.bin"), "picture");
    unharmed.Check("no login");
}

TEST_F(Sessions, WhatFollowsTheLoginIsLost)
{
    Boot();
    const Peer peer = Connect();
    EXPECT_TRUE(peer.Send(Login(kFirmware) + AskVersion()));
    EXPECT_EQ(peer.Take(8), LoginReply(kLoginAccepted));
    EXPECT_TRUE(peer.Silent(50));
    EXPECT_TRUE(peer.Send(AskVersion())); // begins at the start of the buffer
    EXPECT_EQ(peer.Take(kVersionReplySize).size(), kVersionReplySize);
    EXPECT_TRUE(peer.Silent(50));
}

TEST_F(Sessions, LongestPacketsAndOneByteMore)
{
    Boot();
    const Unharmed unharmed(*board);
    struct Row {
        bool loggedIn; // true: the packet asks for the modem's status; false: it is the login itself
        std::uint32_t length;
        std::size_t reply; // bytes; 0: the packet never completes
    };
    for (const Row &row : {Row{false, 9216, 8}, Row{false, 9217, 0}, Row{true, 9216, kModemStatusSize},
                           Row{true, 0xFFFFFFFF, 0}}) {
        const Peer peer = row.loggedIn ? LogIn(kModem) : Connect();
        const std::uint32_t subType = kModem; // of a login; the modem's service does not read this word
        const std::uint32_t command = kModemCommandStatus;
        EXPECT_TRUE(peer.Send(Le32(row.length) + Le32(subType) + Le32(command) + Zeros(9216 - 13)));
        EXPECT_TRUE(peer.Silent(50)) << "one byte is missing";
        EXPECT_TRUE(peer.Send("x"));
        EXPECT_EQ(peer.Take(row.reply).size(), row.reply) << row.length;
        EXPECT_TRUE(peer.Silent(50));
        if (row.reply != 0)
            continue;
        EXPECT_TRUE(peer.Send("x")); // the buffer is full
        EXPECT_TRUE(peer.Ended()) << row.length;
    }
    unharmed.Check("longest packets");
}

TEST_F(Sessions, LogReportsWhatHappens)
{
    Boot();
    {
        const Peer peer = LogIn(kModem);
        EXPECT_TRUE(peer.Send(Framed(Le32(kModemCommandStatus))));
        EXPECT_EQ(peer.Take(kModemStatusSize).size(), kModemStatusSize);
    }
    ExpectCount("connecting error, one client quit!", 1);
    const std::string log = board->Record().LogText();
    const char *const lines[] =
        {"[---src/tcp_services.cpp::AcceptClient::", "---] accept one client connecting.\n",
         "ManagerConnecting buff =[\x08]\n", // the reply up to its first zero
         "TcpServices [KThirdGenerationThread]\n",   "TcpServices [PT_GET3GINFO_CMD]\n",
         "[---src/tcp_services.cpp::TcpServices::",  "---] connecting error, one client quit!\n"};
    std::size_t from = 0;
    for (const char *const line : lines) {
        const std::size_t found = log.find(line, from);
        ASSERT_NE(found, std::string::npos) << line;
        from = found;
    }
}

TEST_F(Sessions, PacketsInAnyPieces)
{
    Boot();
    const Unharmed unharmed(*board);
    const std::string packet = AskVersion();
    {
        const Peer peer = LogIn(kFirmware);
        const int on = 1;
        setsockopt(peer.Get(), IPPROTO_TCP, 1 /* no delay */, &on, sizeof on);
        EXPECT_TRUE(peer.Send(packet));
        const std::string reply = peer.Take(kVersionReplySize);
        // Three packets, cut at every place of the first; each piece is served before the next is sent.
        const std::string two = packet + packet;
        const std::string threeReplies = reply + reply + reply;
        for (std::size_t cut = 1; cut < packet.size(); ++cut) {
            EXPECT_TRUE(peer.Send(packet.substr(0, cut)));
            EXPECT_TRUE(peer.Silent(2));
            EXPECT_TRUE(peer.Send(packet.substr(cut).append(two)));
            EXPECT_EQ(peer.Take(3 * kVersionReplySize), threeReplies) << cut;
        }
        for (const char byte : packet)
            EXPECT_TRUE(peer.Send(std::string(1, byte)));
        EXPECT_EQ(peer.Take(kVersionReplySize), reply);

        // Far more than the buffer holds, in one go.
        std::string many;
        std::string replies;
        for (int count = 0; count < 1000; ++count) {
            many += packet;
            replies += reply;
        }
        EXPECT_TRUE(peer.Send(many));
        EXPECT_EQ(peer.Take(replies.size()), replies);
        EXPECT_TRUE(peer.Silent(50));
    }
    unharmed.Check("packets in pieces");
}

// The settings service logs a packet that is too short for it.
TEST_F(Sessions, ShortLengthWordsAreTakenAsGiven)
{
    const std::string dropped = "packet does not fit its frame, dropped.";
    Boot();
    const Unharmed unharmed(*board);
    {
        const Peer peer = LogIn(kSettings);
        // A packet consumes as many bytes as its length says; the rest of the length begins the next packet.
        const std::string three = Le32(3).substr(0, 3);
        const std::string two = Le32(2).substr(0, 2);
        EXPECT_TRUE(peer.Send(three + Le32(256) + std::string(252, 'x') + two + Le32(0x10000)));
        ExpectCount(dropped, 2);
        EXPECT_TRUE(peer.Silent(50));
    }
    unharmed.Check("length 3");
    for (const std::uint32_t length : {1U, 2U, 3U}) { // the rest of the length makes the next packet endless
        const Peer peer = LogIn(kSettings);
        board->Forget();
        EXPECT_TRUE(peer.Send(Le32(length) + "\x7F\x7F\x7F\x7F"));
        ExpectCount(dropped, 1);
        EXPECT_TRUE(peer.Silent(50));
    }
    unharmed.Check("lengths 1 to 3");
    {
        const Peer peer = LogIn(kSettings);
        board->Forget();
        std::size_t sent = 0;
        for (std::size_t read = 1; read <= 4; ++read) { // handled once per read, and the bytes stay
            EXPECT_TRUE(peer.Send(Zeros(read == 1 ? 4 : 1000)));
            sent += read == 1 ? 4 : 1000;
            ExpectCount(dropped, read);
        }
        EXPECT_TRUE(peer.Silent(50));
        EXPECT_TRUE(peer.Send(Zeros(9216 - sent)));
        EXPECT_TRUE(peer.Silent(50));
        EXPECT_TRUE(peer.Send("x")); // the buffer is full
        EXPECT_TRUE(peer.Ended());
    }
    unharmed.Check("length 0");
    {
        const Peer peer = LogIn(kFirmware); // this service refuses a packet that is too short
        EXPECT_TRUE(peer.Send(Zeros(4)));
        EXPECT_TRUE(peer.Ended());
        EXPECT_TRUE(board->Record().WaitForLog("dispose packet error!!!!!!!!!"));
    }
    unharmed.Check("length 0 refused");
}

TEST_F(Sessions, ResetInTheMiddleOfAnything)
{
    Boot();
    const Unharmed unharmed(*board);
    const std::string packet = AskVersion();
    for (const std::uint32_t subType : {kUpload, kSettings, kFirmware, kPlayer, kModem}) {
        for (const std::string &bytes : {std::string(), Login(subType).substr(0, 5), Login(subType),
                                         packet.substr(0, 11), packet + packet.substr(0, 3)}) {
            const bool logsIn = bytes.size() > 8;
            const Peer peer = logsIn ? LogIn(subType) : Connect();
            EXPECT_TRUE(peer.Send(bytes));
            const linger reset{.l_onoff = 1, .l_linger = 0};
            setsockopt(peer.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            // When the board answers, it has accepted the connection.
            EXPECT_TRUE(UdpPeer().Ask(SearchBytes(), board->Network().BoardAddress()));
        }
    }
    unharmed.Check("resets");
    EXPECT_TRUE(board->Record().WaitForLog("connecting error, one client quit!", 25));
}

TEST_F(SessionLink, LossOfTheLinkClosesAllButThePlayer)
{
    options.player = true;
    Boot();
    const std::size_t before = SettledDescriptors(*board);
    const auto connectInside = [this] {
        sockaddr_in here{};
        here.sin_family = AF_INET;
        here.sin_port = htons(8870);
        here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Peer peer(board->Network().Socket(AF_INET, SOCK_STREAM).Release());
        EXPECT_EQ(connect(peer.Get(), reinterpret_cast<const sockaddr *>(&here), sizeof here), 0);
        return peer;
    };
    const Peer settings = connectInside();
    EXPECT_TRUE(settings.Send(Login(kSettings)));
    EXPECT_EQ(settings.Take(8), LoginReply(kLoginAccepted));
    const Peer silent = connectInside();
    const Peer far = LogIn(kModem);
    ASSERT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == before + 3; }));

    board->Network().Cable(false);
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerNetworkError));
    EXPECT_TRUE(settings.Ended());
    EXPECT_TRUE(silent.Ended());
    EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == before; }));
    EXPECT_TRUE(board->Record().WaitForLog("netlinck flag 0, fixed status 1"));
    EXPECT_TRUE(board->Player().LoggedIn());
    EXPECT_TRUE(board->Player().Send(kPlayerScreenSize, ScreenSize(128, 64))) << "it is still served";
    EXPECT_TRUE(board->Record().WaitForLog("change screen size"));
    for (const auto &command : board->Record().Commands())
        EXPECT_EQ(command.find("udhcpc"), std::string::npos) << "the address is fixed";

    board->Network().Cable(true);
    EXPECT_TRUE(board->Record().WaitForLog("netlinck flag 1, fixed status 1"));
    const Peer again = LogIn(kSettings);
    EXPECT_TRUE(again.Connected());
}

TEST_F(SessionLink, AnEventWithoutLinkStateCountsAsDown)
{
    options.player = true;
    options.startDaemon = false;
    Boot();
    ASSERT_EQ(board->Run("ip link add test0 type veth peer name test1").status, 0);
    board->Daemon().Start();
    const Peer session = LogIn(kSettings);
    ASSERT_EQ(board->Run("ip link delete test0").status, 0);
    EXPECT_TRUE(board->Record().WaitForLog("---] netlink event error."));
    EXPECT_TRUE(board->Record().WaitForLog("netlinck flag 0, fixed status 1"));
    board->Network().Cable(false);
    EXPECT_TRUE(board->Record().WaitForLog("---] netlink event down."));
    EXPECT_TRUE(session.Silent(50));
    for (const auto &message : board->Player().Messages())
        EXPECT_NE(message.code, kPlayerNetworkError);
}

// Takes three quarters of a minute. A search keeps only the first session of its sender open.
TEST_F(SessionTimeout, SessionsEndAfter42TicksUnlessTheirPeerSearches)
{
    options.player = true;
    Boot();
    const auto begin = std::chrono::steady_clock::now();
    const Peer first = LogIn(kSettings);
    const Peer second = Connect(); // never logs in
    const UdpPeer pc;
    const auto ended = [](const Peer &peer) {
        char byte;
        return recv(peer.Get(), &byte, 1, MSG_DONTWAIT) == 0;
    };
    auto lastSearch = begin, lastSent = begin;
    const bool closed = board->WaitFor(
        [&] {
            const auto now = std::chrono::steady_clock::now();
            if (now - lastSearch > 10s) {
                lastSearch = now;
                EXPECT_TRUE(pc.Ask(SearchBytes(), board->Network().BoardAddress()));
            }
            if (now - lastSent > 1s) {
                lastSent = now;
                first.Send(Le32(4)); // the session's own traffic does not count
            }
            return ended(second);
        },
        70s);
    EXPECT_TRUE(closed);
    const auto age = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(age, 40s);
    EXPECT_LE(age, 60s);
    EXPECT_TRUE(board->Record().WaitForLog("find one bad fd, remove from list and close!"));
    EXPECT_FALSE(ended(first));
    EXPECT_TRUE(board->Player().LoggedIn());
}
