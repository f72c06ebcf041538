// SPDX-License-Identifier: MIT
// Address changes as a PC on the same cable asks for them.
#include "common/unique_fd.h"
#include "network_peer.h"

namespace
{

constexpr char kTakeNewInterfaces[] = "cp /etc/network/interfaces_static /etc/network/interfaces; "
                                      "rm /etc/network/interfaces_static";
constexpr char kCopyPort[] = "cp /home/root/plexa_data/server_config_tmp /home/root/plexa_data/server_config";
constexpr char kPreUp[] = "        pre-up /bin/grep -v -e \"ip=[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\" "
                          "/proc/cmdline > /dev/null\n";
constexpr char kCopyBack[] = "cp /etc/network/interfaces_dynamic /etc/network/interfaces; "
                             "rm /etc/network/interfaces_dynamic; rm /etc/resolv.conf";

class AddressChange : public Network
{
};

constexpr char kHead[] = "auto lo\niface lo inet loopback\n\nauto eth0\n";

TEST_F(AddressChange, FixedToDhcpAndBack)
{
    Start();
    board->Network().DhcpServer(true);
    board->Forget();
    const Bytes dhcp = ToDhcp();
    EXPECT_TRUE(SendsUnanswered(dhcp)) << "the first request is applied";
    ASSERT_TRUE(board->Record().WaitForCommand(kCopyPort));
    EXPECT_EQ(Interfaces(), std::string(kHead) + "iface eth0 inet dhcp\n" + kPreUp);
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       kMaxLeaseDelay));
    EXPECT_EQ(Found(board->Network().LeaseAddress(), kMaxRecordDelay), board->Network().LeaseAddress())
        << "in network byte order";
    EXPECT_EQ(Mode(), std::make_pair('d', 0U));
    const std::vector<std::string> switched = board->Record().Commands();
    EXPECT_EQ(switched.size(), 3U);
    for (const std::string command : {kCopyBack, kRestart, kCopyPort})
        EXPECT_EQ(std::count(switched.begin(), switched.end(), command), 1) << command;
    Send(dhcp);
    EXPECT_EQ(Receive().substr(kHeaderSize), dhcp) << "the second is acknowledged";
    EXPECT_EQ(board->Record().Commands().size(), 3U) << "and changes nothing";
    EXPECT_TRUE(SendsUnanswered(dhcp)) << "the third is applied again";
    EXPECT_TRUE(board->Record().WaitForCommand(kRestart, 2));

    board->Forget();
    const std::string address = board->Network().PcAddress() + "23"; // 10.20.30.123
    Send(ToFixed(address, 12000));
    ASSERT_TRUE(board->Record().WaitForCommand(kCopyPort, 2));
    const std::string gateway = board->Network().PcAddress();
    EXPECT_EQ(board->Record().Commands(),
              (std::vector<
                  std::string>{"killall -9 udhcpc", "ifconfig eth0 " + address + " netmask 255.255.255.0",
                               "route add default gw " + gateway, kTakeNewInterfaces,
                               "rm /etc/resolv.conf; echo \"nameserver 8.8.8.8\" >> /etc/resolv.conf",
                               kCopyPort, kCopyPort}));
    EXPECT_EQ(Interfaces(), std::string(kHead) + "iface eth0 inet static\n        address " + address +
                                "\n        netmask 255.255.255.0\n        network 10.20.30.0\n"
                                "        gateway " +
                                gateway + "\n");
    EXPECT_EQ(board->Root().Read("/etc/resolv.conf"), "nameserver 8.8.8.8\n");
    EXPECT_EQ(board->Network().Eth0Address(), address);
    EXPECT_TRUE(DhcpClientIsGone()) << "no late lease can come";
    EXPECT_EQ(Record().substr(kAddressAt, 12),
              Backwards(Quad(address)) + Backwards(Quad("255.255.255.0")) + Backwards(Quad(gateway)))
        << "the address is in host byte order now, as mask and gateway are";
}

TEST_F(AddressChange, CustomPortFollowsTheRequest)
{
    options.files["/usr/share/id/config"] = "C123456789012";
    options.files["/home/root/plexa_data/server_config"] = "name=a\nport=0\n";
    Start();
    const std::string address = board->Network().BoardAddress();
    Send(ToFixed(address, 12000));
    ASSERT_TRUE(board->Record().WaitForCommand(kCopyPort, 2));
    ASSERT_TRUE(board->WaitFor([&] { return AcceptsTcp(12000); }));
    EXPECT_EQ(Mode(address, 12000), std::make_pair('f', 12000U)); // answered after the whole request
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/server_config"), "name=a\nport=12000\n");

    // The same port: its sockets stay open, also for a request that comes through one of them.
    const std::size_t descriptors = SettledDescriptors(*board);
    const Bytes again = ToFixed(board->Network().PcAddress() + "24", 12000);
    Send(again, address, 12000);
    ASSERT_TRUE(board->WaitFor(
        [&] { return board->Network().Eth0Address() == board->Network().PcAddress() + "24"; }));
    Send(again, board->Network().PcAddress() + "24", 12000);
    EXPECT_EQ(Receive().substr(kHeaderSize), again);
    EXPECT_TRUE(AcceptsTcp(12000));

    // Another port, asked for through the socket that closes.
    Send(ToFixed(board->Network().PcAddress() + "24", 65535), board->Network().PcAddress() + "24", 12000);
    ASSERT_TRUE(board->WaitFor([&] { return AcceptsTcp(65535); }));
    EXPECT_FALSE(AcceptsTcp(12000));
    EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() <= descriptors; }, 15s));

    for (const std::uint32_t port : {9999U, 65536U, 0U}) {
        Send(ToFixed(board->Network().PcAddress() + "24", 20000));
        Send(ToFixed(board->Network().PcAddress() + "24", port));
        EXPECT_EQ(Mode(), std::make_pair('f', 0U)) << port;
        EXPECT_EQ(board->Root().Read("/home/root/plexa_data/server_config"), "name=a\nport=0\n");
        EXPECT_FALSE(AcceptsTcp(20000));
    }

    const Bytes zeros = Zeros(kAddressChangeSize - kHeaderSize);
    EXPECT_TRUE(SendsUnanswered(zeros)) << "zeros name no board here";
}

TEST_F(AddressChange, AFileWithoutEth0IsNotRewritten)
{
    options.addressing = board::Addressing::kDhcp;
    Start();
    ASSERT_EQ(Found(board->Network().LeaseAddress(), kMaxLeaseDelay), board->Network().LeaseAddress());
    board->Network().DhcpServer(false);
    const Bytes zeros = Zeros(kAddressChangeSize - kHeaderSize);
    Send(zeros);
    EXPECT_EQ(Receive().substr(kHeaderSize), zeros) << "a request of zeros is acknowledged at once";

    // The DHCP client looks for a server. A fixed address ends it; the board answers all the time. A restart
    // that is queued never runs.
    board->Root().Write("/etc/network/interfaces", "iface eth0 inet dhcp");
    board->Forget();
    const Bytes toDhcp = ToDhcp();
    Send(toDhcp);
    ASSERT_TRUE(board->Record().WaitForCommand(kRestart));
    Send(toDhcp);
    EXPECT_EQ(Receive().substr(kHeaderSize), toDhcp);
    EXPECT_TRUE(SendsUnanswered(toDhcp));
    EXPECT_NE(Record(), kNoRecord) << "discovery answers while the DHCP client looks for a server";
    const auto before = Clock::now();
    Send(ToFixed(board->Network().BoardAddress(), 0));
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().BoardAddress(); }));
    EXPECT_LT(Clock::now() - before, 5s);
    EXPECT_TRUE(board->Record().WaitForCommand("nameserver"));
    EXPECT_TRUE(DhcpClientIsGone());
    EXPECT_EQ(std::ranges::count(board->Record().Commands(), kRestart), 1);

    // Without an eth0 line, and without a file, nothing is applied at once.
    for (const bool exists : {true, false}) {
        if (exists)
            board->Root().Write("/etc/network/interfaces", "auto lo\n");
        else
            board->Run("rm /etc/network/interfaces");
        board->Forget();
        Send(ToFixed(board->Network().PcAddress() + (exists ? "25" : "26")));
        ASSERT_TRUE(board->Record().WaitForCommand("nameserver"));
        EXPECT_EQ(board->Record().Commands().size(), 2U);
        EXPECT_EQ(board->Root().TryRead("/etc/network/interfaces"),
                  exists ? std::optional<std::string>("auto lo\n") : std::nullopt);
        EXPECT_FALSE(board->Root().Exists("/etc/network/interfaces_static"));
        EXPECT_EQ(board->Network().Eth0Address(), board->Network().BoardAddress());
    }
}

TEST_F(AddressChange, APortInUseIsNotKept)
{
    options.files["/home/root/plexa_data/server_config"] = "port=0\n";
    Start();
    const ledboard::UniqueFd taken(board->Network().Socket(AF_INET, SOCK_DGRAM));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(12000);
    ASSERT_EQ(bind(taken.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
    const std::size_t descriptors = SettledDescriptors(*board);
    Send(ToFixed(board->Network().BoardAddress(), 12000));
    ASSERT_TRUE(board->Record().WaitForLog("udp port 12000 bind fail:  Address already in use"));
    EXPECT_EQ(Mode(), std::make_pair('f', 0U));
    EXPECT_FALSE(AcceptsTcp(12000));
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/server_config"), "port=0\n");
    EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() == descriptors; }, 15s));
}

TEST_F(AddressChange, APortKnownFromStartStaysClosed)
{
    options.addressing = board::Addressing::kDhcp;
    options.files["/home/root/plexa_data/server_config"] = "port=12000\n";
    Start();
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       kMaxLeaseDelay));
    Send(ToFixed(board->Network().BoardAddress(), 12000));
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().BoardAddress(); }));
    EXPECT_EQ(Mode(), std::make_pair('f', 12000U));
    EXPECT_FALSE(AcceptsTcp(12000));
    EXPECT_TRUE(AcceptsTcp(8870));
}

} // namespace
