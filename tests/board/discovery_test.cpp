// SPDX-License-Identifier: MIT
// Discovery as a PC sees it: datagrams in, datagrams out, typed byte by byte.
#include "udp_peer.h"

#include <random>

using namespace std::chrono_literals;

namespace
{

// A header whose bytes all differ.
const std::string kHeader = "\x11\x12"          // ph_descrite
                            "\x21\x22"          // ph_version
                            "\x31\x32"          // ph_length
                            "\x41"              // ph_types
                            "\x51\x52\x53\x54"  // ph_data_crc
                            "\x61\x62\x63\x64"; // ph_head_crc
const std::string kId("C1-0123456789\0", 14);

// The header as a reply carries it: ph_length is its own.
std::string Answered(std::size_t length)
{
    return kHeader.substr(0, 4) + Le16(length) + kHeader.substr(6);
}

std::string Status(std::uint32_t command, const std::string &id = kId)
{
    return kHeader + Le32(command) + id;
}

std::string AddressingReply(std::uint32_t dynamic, std::uint32_t port)
{
    return Answered(kAddressingReplySize) + Le32(kStatusAddressing) + Le32(dynamic) + Le32(port) + kId;
}

std::string ServerReply(std::uint32_t command, char connected)
{
    return Answered(kServerReplySize) + Le32(command) + kId + connected;
}

std::string ServerAddressReply(const std::string &address)
{
    return Answered(kServerAddressReplySize) + Le32(kStatusServerAddress) + kId + address;
}

std::string RemoteAddress(const std::string &host, std::uint32_t port)
{
    const std::string isHostName = Le16(1);
    return isHostName + Field(host, 256) + Le32(port) + Field("operator", 20);
}

// A record of the settings file; its header looks like one, too.
std::string Record(std::uint32_t id, std::uint32_t value)
{
    return Le32(id) + Le32(value);
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
        constexpr std::uint32_t kDataLength = 48;
        constexpr std::uint32_t kModelType = 22;
        constexpr std::uint32_t kScreenSize = 3; // the fourth record
        options.files["/boot/setting.ss"] = Record(0, kDataLength) + Record(1, 0) + Record(2, 0) +
                                            Record(kModelType, 5) + Record(kScreenSize, 320 | 160 << 16) +
                                            Record(4, 0) + Record(5, 0);
        options.player = false;
    }
    void ExpectSilence(const std::string &request, std::uint16_t port = 8878)
    {
        // The answer to the next search comes first only if the request is not answered.
        EXPECT_TRUE(pc.Send(request, board->Network().BoardAddress(), port));
        const auto next =
            pc.Ask(kHeader + Zeros(kSearchSize - kHeaderSize), board->Network().BoardAddress(), port);
        ASSERT_TRUE(next);
        EXPECT_EQ(next->bytes.size(), kSearchReplySize) << request.size() << " bytes were answered";
    }

    UdpPeer pc;
};

} // namespace

TEST_F(BoardDiscovery, SearchReplyByteForByte)
{
    Boot();
    const std::string address("\x0a\x14\x1e\x02", 4); // 10.20.30.2 in network byte order
    constexpr char kCommand = 15;
    const std::string recvThreadStatus = Le32(0), serialThreadStatus = Le32(0);
    const std::string mac = " 2:4c:45:44: 0: 0";                           // cut to 17 characters
    const std::string mask = Le32(0xFFFFFF00), gateway = Le32(0x0A141E01); // in host byte order
    const std::string playerVersion("\1\2\3\4", 4);
    const std::string fpgaVersion("\7\x08\x09\0", 4);
    const std::string width = Le32(320), height = Le32(160);
    const std::string light = Le32(0);
    const std::string deviceType = Le32(1), modelType = Le32(0);
    const std::string hasBootScreen = Le32(1);
    const std::string usbSize = Le32(0);
    const std::string expected = Answered(kSearchReplySize) + kCommand + address + recvThreadStatus +
                                 serialThreadStatus + kId + mac + address + mask + gateway + playerVersion +
                                 fpgaVersion + width + height + light + deviceType + modelType +
                                 hasBootScreen + usbSize + Field("North gate", 250) + Zeros(52);
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
        std::string reply; // empty: no reply
    };
    const Row rows[] = {
        {kStatusAddressing, AddressingReply(0, 0)},
        {kStatusServerConnected, ServerReply(kStatusServerConnected, 0)},
        {kStatusForgetServer, ServerReply(kStatusForgetServer, 0)},
        {kStatusServerAddress, ServerAddressReply(Zeros(kServerAddressSize))},
        {0, ""},
        {3, ""},
        {kStatusSetServer, ""},
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
    const auto set = pc.Ask(Status(0, "another board.") + address, board->Network().BoardAddress());
    ASSERT_TRUE(set);
    EXPECT_EQ(set->bytes, ServerReply(kStatusSetServer, 1));
    EXPECT_TRUE(board->Record().WaitForLog("SET_REMOTE_ADDR"));
    const auto shown = pc.Ask(Status(kStatusServerAddress), board->Network().BoardAddress());
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown->bytes, ServerAddressReply(address));
}

// All lengths with random content; other tests send the lengths that could be valid.
TEST_F(BoardDiscovery, RandomDatagramsChangeNothing)
{
    options.files["/home/root/plexa_data/server_config"] = "port=23456\n";
    Boot();
    const Unharmed unharmed(*board); // it has answered: the start is over
    board->Forget();
    std::mt19937 random(8878);
    for (const std::uint16_t port : {std::uint16_t{8878}, std::uint16_t{23456}}) {
        for (std::size_t length = 0; length <= 1500; ++length) {
            if (length == kSearchSize || (length == kSetServerSize && port == 8878))
                continue;
            std::string bytes(length, '\0');
            for (char &byte : bytes)
                byte = static_cast<char>(random());
            ASSERT_TRUE(pc.Send(bytes, board->Network().BoardAddress(), port));
            if (length % 100 == 0) // never more on the way than the board's socket holds
                ExpectSilence(bytes, port);
        }
    }
    ExpectSilence(std::string(65507, 'x'));
    EXPECT_FALSE(pc.Receive(100)) << "something was answered";
    unharmed.Check("random datagrams");
    const auto status = pc.Ask(Status(kStatusAddressing), board->Network().BoardAddress());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, AddressingReply(0, 23456));
    EXPECT_TRUE(board->Record().Commands().empty());
}

TEST_F(BoardDiscovery, CustomPortAnswersTheSender)
{
    options.files["/home/root/plexa_data/server_config"] = "port=12345\n";
    Boot();
    ASSERT_TRUE(board->Record().WaitForLog("[---init udp 12345 port success.---]"));
    const auto reply =
        pc.Ask(kHeader + Zeros(kSearchSize - kHeaderSize), board->Network().BoardAddress(), 12345);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->bytes.size(), kSearchReplySize);
    EXPECT_EQ(reply->destination, board->Network().PcAddress());
    EXPECT_EQ(reply->port, 12345);
    const auto status = pc.Ask(Status(kStatusAddressing), board->Network().BoardAddress(), 12345);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, AddressingReply(0, 12345));
    ExpectSilence(Status(kStatusAddressing, "C1-0123456788" + Zeros(1)), 12345);
    for (const std::uint32_t command : {kStatusServerConnected, kStatusForgetServer, kStatusServerAddress})
        ExpectSilence(Status(command), 12345);
    ExpectSilence(Status(0) + RemoteAddress(board->Network().PcAddress(), 4000), 12345);
    EXPECT_FALSE(board->Record().WaitForLog("SET_REMOTE_ADDR", 1, 0ms));

    const Peer session = Peer::Connect(board->Network().BoardAddress(), 12345);
    EXPECT_TRUE(session.Send(Login(kModem)));
    EXPECT_EQ(session.Take(8), LoginReply(kLoginModem));
}

TEST_F(BoardDiscovery, DynamicAddressingOpensNoCustomPort)
{
    options.addressing = board::Addressing::kDhcp;
    options.files["/home/root/plexa_data/server_config"] = "port=12345\n";
    Boot();
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       10s));
    const auto status = pc.Ask(Status(kStatusAddressing), board->Network().LeaseAddress());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->bytes, AddressingReply(1, 12345));
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
    EXPECT_EQ(reply->bytes.size(), kSearchReplySize);
    EXPECT_EQ(std::system("ip link delete pc9"), 0);
}
