// SPDX-License-Identifier: MIT
// Discovery as a PC sees it: datagrams in, datagrams out, typed byte by byte.
#include "peer.h"
#include "udp_peer.h"

#include <random>

using namespace std::chrono_literals;

namespace
{

// 15 bytes of a header in which every field can be told from the others.
const std::string kHeader("\x11\x12\x21\x22\x31\x32\x41\x51\x52\x53\x54\x61\x62\x63\x64", 15);
const std::string kId("C1-0123456789\0", 14);

// The header as a reply carries it.
std::string Answered(unsigned length)
{
    return kHeader.substr(0, 4) + static_cast<char>(length & 0xFF) + static_cast<char>(length >> 8) +
           kHeader.substr(6);
}

std::string Padded(const std::string &text, std::size_t size)
{
    return text + Zeros(size - text.size());
}

std::string Status(std::uint32_t command, const std::string &id = kId)
{
    return kHeader + Le32(command) + id;
}

std::string RemoteAddress(const std::string &host, std::uint32_t port)
{
    return std::string("\x01\0", 2) + Padded(host, 256) + Le32(port) + Padded("operator", 20);
}

class BoardDiscovery : public BoardTest
{
protected:
    void SetUp() override
    {
        options.files["/usr/share/id/config"] = "C1-0123456789abc";
        options.files["/usr/share/id/name"] = "North gate";
        options.files["/home/root/plexa/version"] = "1.2.3.4\n";
        options.files["/boot/fpga.img"] = "\x09\x07\x08\x09_rest";
        options.files["/boot/disp.bin"] = "picture";
        // Data of 48 bytes; the fourth record says 320 by 160 pixels, record 22 says 5.
        options.files["/boot/setting.ss"] = Le32(0) + Le32(48) + Le32(1) + Le32(0) + Le32(2) + Le32(0) +
                                            Le32(22) + Le32(5) + Le32(3) + Le32(320 | 160 << 16) + Le32(4) +
                                            Le32(0) + Le32(5) + Le32(0);
        options.player = false;
    }
    void ExpectSilence(const std::string &request, std::uint16_t port = 8878)
    {
        // The search behind it is answered first only when the request is not answered at all.
        EXPECT_TRUE(pc.Send(request, board->Network().BoardAddress(), port));
        const auto next = pc.Ask(kHeader + Zeros(15), board->Network().BoardAddress(), port);
        ASSERT_TRUE(next);
        EXPECT_EQ(next->bytes.size(), 409U) << request.size() << " bytes were answered";
    }

    UdpPeer pc;
};

} // namespace

TEST_F(BoardDiscovery, SearchReplyByteForByte)
{
    Boot();
    const std::string expected = Answered(409) +                      // header, length 409
                                 "\x0f" +                             // command
                                 std::string("\x0a\x14\x1e\x02", 4) + // 10.20.30.2 in network byte order
                                 Le32(0) + Le32(0) +                  // both thread states
                                 kId + " 2:4c:45:44: 0: 0" +          // 17 characters of the MAC
                                 std::string("\x0a\x14\x1e\x02", 4) + Le32(0xFFFFFF00) + // mask and gateway
                                                                                         // in host byte order
                                 Le32(0x0A141E01) +                                      //
                                 std::string("\1\2\3\4", 4) +                            // player's version
                                 std::string("\7\x08\x09\0", 4) +                        // FPGA's version
                                 Le32(320) + Le32(160) + Le32(0) +                       // screen, brightness
                                 Le32(1) + Le32(0) + Le32(1) + // device type, model type, boot picture
                                 Le32(0) +                     // no USB disk
                                 Padded("North gate", 250) + Zeros(52);
    ASSERT_EQ(board->Network().BoardMac(), "02:4c:45:44:00:00");
    for (const std::string &to :
         {board->Network().BoardAddress(), std::string("255.255.255.255"), std::string("10.20.30.255")}) {
        const auto reply = pc.Ask(kHeader + "any content....", to);
        ASSERT_TRUE(reply) << to;
        EXPECT_EQ(reply->bytes, expected);
        EXPECT_EQ(reply->source, "10.20.30.2");
        EXPECT_EQ(reply->port, 8878);
        EXPECT_EQ(reply->destination, "255.255.255.255") << "the mixed comparison broadcasts";
    }
}

TEST_F(BoardDiscovery, StatusCommands)
{
    Boot();
    struct Row {
        std::uint32_t command;
        std::string reply; // empty: none
    };
    const Row rows[] = {
        {1, Answered(41) + Le32(1) + Le32(0) + Le32(0) + kId}, // fixed address, no custom port
        {2, Answered(34) + Le32(2) + kId + Zeros(1)},
        {5, Answered(34) + Le32(5) + kId + Zeros(1)},
        {6, Answered(315) + Le32(6) + kId + Zeros(282)},
        {0, ""},
        {3, ""},
        {4, ""},
        {7, ""},
        {0x80000001, ""},
    };
    for (const Row &row : rows) {
        if (row.reply.empty()) {
            ExpectSilence(Status(row.command));
            continue;
        }
        const auto reply = pc.Ask(Status(row.command), board->Network().BoardAddress());
        ASSERT_TRUE(reply) << row.command;
        EXPECT_EQ(reply->bytes, row.reply) << row.command;
        for (std::size_t byte = 0; byte < kId.size(); ++byte) {
            std::string other = kId;
            other[byte] ^= 1;
            ExpectSilence(Status(row.command, other));
        }
    }
    for (const char *const name :
         {"DEVICE_STATUS_CONNECT_SERVER", "DISCONNECT_FROM_REMOTE_SERVER", "GET_REMOTE_ADDR"})
        EXPECT_TRUE(board->Record().WaitForLog(name)) << name;
}

TEST_F(BoardDiscovery, RemoteServerIsSetByARequestForAnotherBoard)
{
    Boot();
    const std::string address = RemoteAddress(board->Network().PcAddress(), 4000);
    const auto set = pc.Ask(kHeader + Le32(0) + "another board." + address, board->Network().BoardAddress());
    ASSERT_TRUE(set);
    EXPECT_EQ(set->bytes, Answered(34) + Le32(4) + kId + std::string(1, '\1'));
    EXPECT_TRUE(board->Record().WaitForLog("SET_REMOTE_ADDR"));
    const auto shown = pc.Ask(Status(6), board->Network().BoardAddress());
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown->bytes, Answered(315) + Le32(6) + kId + address);
}

// All lengths with random content; what could be a valid request is asked elsewhere.
TEST_F(BoardDiscovery, RandomDatagramsLeaveEverythingAsItWas)
{
    options.files["/home/root/plexa_data/server_config"] = "port=23456\n";
    Boot();
    const Unharmed unharmed(*board); // it has answered: the start is over
    board->Forget();
    std::mt19937 random(8878);
    for (const std::uint16_t port : {std::uint16_t{8878}, std::uint16_t{23456}}) {
        for (std::size_t length = 0; length <= 1500; ++length) {
            if (length == 30 || (length == 315 && port == 8878))
                continue;
            std::string bytes(length, '\0');
            for (char &byte : bytes)
                byte = static_cast<char>(random());
            ASSERT_TRUE(pc.Send(bytes, board->Network().BoardAddress(), port));
            if (length % 100 == 0) // never more under way than the board's socket holds
                ExpectSilence(bytes, port);
        }
    }
    ExpectSilence(std::string(65507, 'x'));
    EXPECT_FALSE(pc.Receive(100)) << "something was answered";
    unharmed.Check("random datagrams");
    const auto status = pc.Ask(Status(1), board->Network().BoardAddress());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, Answered(41) + Le32(1) + Le32(0) + Le32(23456) + kId);
    EXPECT_TRUE(board->Record().Commands().empty());
}

TEST_F(BoardDiscovery, CustomPortAnswersTheSender)
{
    options.files["/home/root/plexa_data/server_config"] = "port=12345\n";
    Boot();
    ASSERT_TRUE(board->Record().WaitForLog("[---init udp 12345 port success.---]"));
    const auto reply = pc.Ask(kHeader + Zeros(15), board->Network().BoardAddress(), 12345);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->bytes.size(), 409U);
    EXPECT_EQ(reply->destination, board->Network().PcAddress());
    EXPECT_EQ(reply->port, 12345);
    const auto status = pc.Ask(Status(1), board->Network().BoardAddress(), 12345);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, Answered(41) + Le32(1) + Le32(0) + Le32(12345) + kId);
    ExpectSilence(Status(1, "C1-0123456788" + Zeros(1)), 12345);
    for (const std::uint32_t command : {2U, 5U, 6U})
        ExpectSilence(Status(command), 12345);
    ExpectSilence(kHeader + Le32(0) + kId + RemoteAddress(board->Network().PcAddress(), 4000), 12345);
    EXPECT_FALSE(board->Record().WaitForLog("SET_REMOTE_ADDR", 1, 0ms));

    const Peer session = Peer::Connect(board->Network().BoardAddress(), 12345);
    EXPECT_TRUE(session.Send(Le32(8) + Le32(4)));
    EXPECT_EQ(session.Take(8), Le32(8) + std::string("\4\0\0\0", 4));
}

TEST_F(BoardDiscovery, DynamicAddressingOpensNoCustomPort)
{
    options.addressing = board::Addressing::kDhcp;
    options.files["/home/root/plexa_data/server_config"] = "port=12345\n";
    Boot();
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       10s));
    const auto status = pc.Ask(Status(1), board->Network().LeaseAddress());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, Answered(41) + Le32(1) + Le32(1) + Le32(12345) + kId);
    EXPECT_TRUE(board->Record().WaitForLog("[---src/network.c::GetSystemEnvInfo::"));
    EXPECT_TRUE(board->Record().WaitForLog("---] is dynamic ip address."));
    EXPECT_FALSE(Peer::Connect(board->Network().LeaseAddress(), 12345).Connected());
    EXPECT_TRUE(Peer::Connect(board->Network().LeaseAddress(), 8870).Connected());
}

TEST_F(BoardDiscovery, RepliesLeaveByTheInterfaceOfTheRequest)
{
    Boot();
    const std::string daemon = std::to_string(board->Daemon().Pid());
    ASSERT_EQ(std::system(("ip link add pc9 type veth peer name eth1 netns " + daemon +
                           " && ip address add 10.99.0.1/24 dev pc9 && ip link set pc9 up")
                              .c_str()),
              0);
    ASSERT_EQ(board->Run("ifconfig eth1 10.99.0.2 netmask 255.255.255.0 up && route del default; route -n")
                  .status,
              0);
    ASSERT_EQ(board->Run("route -n | grep '^0.0.0.0'").output, "");
    struct Row {
        const char *interface, *to, *source;
    };
    const Row rows[] = {
        {"pc0", "255.255.255.255", "10.20.30.2"},
        {"pc9", "255.255.255.255", "10.99.0.2"},
        {"pc9", "10.99.0.2", "10.99.0.2"},
        {"pc0", "10.20.30.2", "10.20.30.2"},
    };
    const auto check = [&](const char *when) {
        for (const Row &row : rows) {
            const UdpPeer bound(row.interface);
            const auto reply = bound.Ask(SearchBytes(), row.to);
            ASSERT_TRUE(reply) << when << ": " << row.interface << " " << row.to;
            EXPECT_EQ(reply->interface, row.interface);
            EXPECT_EQ(reply->source, row.source);
            EXPECT_EQ(reply->destination, "255.255.255.255");
        }
    };
    check("two interfaces, no default route");
    board->Network().Cable(false);
    EXPECT_TRUE(board->Record().WaitForLog("netlink event down."));
    board->Network().Cable(true);
    check("after a cable pull");
    // A PC of another subnet, to which there is no route.
    ASSERT_EQ(std::system("ip address flush dev pc0 && ip address add 172.31.5.5/16 dev pc0"), 0);
    const auto reply = UdpPeer("pc0").Ask(SearchBytes(), "255.255.255.255");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->bytes.size(), 409U);
    EXPECT_EQ(std::system("ip link delete pc9"), 0);
}
