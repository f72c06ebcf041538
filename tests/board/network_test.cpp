// SPDX-License-Identifier: MIT
// The board's addressing as a PC on the same cable sees it: address changes, leases, link-local addresses,
// cable pulls.
#include "board_test.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::string;

constexpr char kRestart[] = "killall -9 udhcpc; udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0";
constexpr char kCopyPort[] = "cp /home/root/plexa_data/server_config_tmp /home/root/plexa_data/server_config";
constexpr char kPreUp[] = "        pre-up /bin/grep -v -e \"ip=[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\" "
                          "/proc/cmdline > /dev/null\n";
constexpr std::size_t kId = 28; // of the record in a search reply
constexpr std::size_t kAddress = 59;

Bytes Quad(const std::string &dotted)
{
    in_addr address{};
    inet_pton(AF_INET, dotted.c_str(), &address);
    return {reinterpret_cast<const char *>(&address), sizeof address};
}

std::string Dotted(const Bytes &quad)
{
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, quad.data(), text, sizeof text);
}

Bytes Number(std::uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

Bytes Backwards(Bytes bytes)
{
    std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

class Network : public BoardTest
{
protected:
    void Start()
    {
        Boot();
        udp_ = board::Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(udp_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        const std::string interface = board->PcInterface();
        ASSERT_EQ(setsockopt(udp_.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                             static_cast<socklen_t>(interface.size() + 1)),
                  0);
    }

    void Send(const Bytes &payload, const std::string &to = "255.255.255.255", int port = 8878)
    {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, to.c_str(), &peer.sin_addr);
        const Bytes datagram = Bytes("ft\1\0\x1e\0\7abcdefgh", 15) + payload;
        sendto(udp_.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
               sizeof peer);
    }

    // The next datagram, empty when none comes in time.
    Bytes Receive(std::chrono::milliseconds limit)
    {
        pollfd waiting{.fd = udp_.Get(), .events = POLLIN, .revents = 0};
        Bytes datagram(1024, '\0');
        if (poll(&waiting, 1, static_cast<int>(limit.count())) != 1)
            return {};
        datagram.resize(static_cast<std::size_t>(recv(udp_.Get(), datagram.data(), datagram.size(), 0)));
        return datagram;
    }

    Bytes Record(std::chrono::milliseconds limit = 1000ms)
    {
        Send(Bytes(15, '\0'));
        const Bytes reply = Receive(limit);
        return reply.size() == 409 ? reply : Bytes(409, '\0');
    }

    std::string AddressInRecord(std::chrono::milliseconds limit = 1000ms)
    {
        return Dotted(Record(limit).substr(kAddress, 4));
    }

    // Asks until the record holds an address that begins like this. The address, or "" when time is over.
    std::string Found(const std::string &start, Clock::duration limit)
    {
        for (const auto end = Clock::now() + limit; Clock::now() < end;) {
            const std::string address = AddressInRecord(200ms);
            if (address.starts_with(start))
                return address;
            board->WaitFor([] { return false; }, 100ms);
        }
        return "";
    }

    Bytes Change(const std::string &address, const std::string &gateway, std::uint32_t dhcp,
                 std::uint32_t port)
    {
        return Quad(address) + Quad("255.255.255.0") + Quad(gateway) + Number(dhcp) + Number(port) +
               Record().substr(kId, 14);
    }
    Bytes ToDhcp() { return Change("0.0.0.0", "0.0.0.0", 1, 0); }
    Bytes ToFixed(const std::string &address, std::uint32_t port = 0)
    {
        return Change(address, board->PcAddress(), 0, port);
    }

    // {mode, custom port} by status command 1.
    std::pair<char, std::uint32_t> Mode(const std::string &to = "255.255.255.255", int port = 8878)
    {
        Send(Number(1) + Record().substr(kId, 14), to, port);
        const Bytes reply = Receive(1000ms);
        std::uint32_t customPort = 0;
        if (reply.size() != 41)
            return {'?', 0};
        std::memcpy(&customPort, reply.data() + 23, sizeof customPort);
        return {reply[19] == 1 ? 'd' : 'f', customPort};
    }

    bool AcceptsTcp(int port)
    {
        const board::Descriptor tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, board->Eth0Address().value_or("").c_str(), &peer.sin_addr);
        return connect(tcp.Get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0;
    }

    bool DhcpClientIsGone()
    {
        return board->WaitFor([&] { return board->Run("pidof udhcpc").output.empty(); }, 2s);
    }
    std::string Interfaces() { return board->ReadFile("/etc/network/interfaces"); }

    board::Descriptor udp_;
};

class AddressChange : public Network
{
};

constexpr char kHead[] = "auto lo\niface lo inet loopback\n\nauto eth0\n";

TEST_F(AddressChange, FixedToDhcpAndBack)
{
    Start();
    board->DhcpServer(true);
    board->Forget();
    const Bytes dhcp = ToDhcp();
    Send(dhcp);
    EXPECT_EQ(Receive(300ms), "") << "the first request is applied and not answered";
    EXPECT_EQ(Interfaces(), std::string(kHead) + "iface eth0 inet dhcp\n" + kPreUp);
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->LeaseAddress(); }, 10s));
    EXPECT_EQ(Found(board->LeaseAddress(), 2s), board->LeaseAddress()) << "in network byte order";
    EXPECT_EQ(Mode(), std::make_pair('d', 0U));
    const std::vector<std::string> switched = board->Commands();
    EXPECT_EQ(switched.size(), 3U);
    for (const std::string command :
         {"cp /etc/network/interfaces_dynamic /etc/network/interfaces; rm /etc/network/interfaces_dynamic; "
          "rm /etc/resolv.conf",
          kRestart, kCopyPort})
        EXPECT_EQ(std::count(switched.begin(), switched.end(), command), 1) << command;
    Send(dhcp);
    EXPECT_EQ(Receive(1000ms).substr(15), dhcp) << "the second is acknowledged";
    EXPECT_EQ(board->Commands().size(), 3U) << "and changes nothing";
    Send(dhcp);
    EXPECT_EQ(Receive(300ms), "") << "the third is applied again";
    EXPECT_TRUE(board->WaitForCommand(kRestart, 2));

    board->Forget();
    const std::string address = board->PcAddress() + "23"; // 10.20.30.123
    Send(ToFixed(address, 12000));
    ASSERT_TRUE(board->WaitForCommand(kCopyPort, 2));
    const std::string gateway = board->PcAddress();
    EXPECT_EQ(
        board->Commands(),
        (std::vector<std::string>{"killall -9 udhcpc", "ifconfig eth0 " + address + " netmask 255.255.255.0",
                                  "route add default gw " + gateway,
                                  "cp /etc/network/interfaces_static /etc/network/interfaces; "
                                  "rm /etc/network/interfaces_static",
                                  "rm /etc/resolv.conf; echo \"nameserver 8.8.8.8\" >> /etc/resolv.conf",
                                  kCopyPort, kCopyPort}));
    EXPECT_EQ(Interfaces(), std::string(kHead) + "iface eth0 inet static\n        address " + address +
                                "\n        netmask 255.255.255.0\n        network 10.20.30.0\n"
                                "        gateway " +
                                gateway + "\n");
    EXPECT_EQ(board->ReadFile("/etc/resolv.conf"), "nameserver 8.8.8.8\n");
    EXPECT_EQ(board->Eth0Address(), address);
    EXPECT_TRUE(DhcpClientIsGone()) << "no late lease can come";
    EXPECT_EQ(Record().substr(kAddress, 12),
              Backwards(Quad(address)) + Backwards(Quad("255.255.255.0")) + Backwards(Quad(gateway)))
        << "the address is in host byte order now, as mask and gateway are";
}

TEST_F(AddressChange, CustomPortFollowsTheRequest)
{
    options.files["/usr/share/id/config"] = "C123456789012";
    options.files["/home/root/plexa_data/server_config"] = "name=a\nport=0\n";
    Start();
    const std::string address = board->BoardAddress();
    Send(ToFixed(address, 12000));
    ASSERT_TRUE(board->WaitForCommand(kCopyPort, 2));
    ASSERT_TRUE(board->WaitFor([&] { return AcceptsTcp(12000); }));
    EXPECT_EQ(board->ReadFile("/home/root/plexa_data/server_config"), "name=a\nport=12000\n");
    EXPECT_EQ(Mode(address, 12000), std::make_pair('f', 12000U));

    // The same port: the endpoints stay, also for the request that comes by one of them.
    const std::size_t descriptors = board->OpenDescriptors();
    const Bytes again = ToFixed(board->PcAddress() + "24", 12000);
    Send(again, address, 12000);
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->PcAddress() + "24"; }));
    Send(again, board->PcAddress() + "24", 12000);
    EXPECT_EQ(Receive(1000ms).substr(15), again);
    EXPECT_TRUE(AcceptsTcp(12000));

    // Another port, asked for through the endpoint that closes.
    Send(ToFixed(board->PcAddress() + "24", 65535), board->PcAddress() + "24", 12000);
    ASSERT_TRUE(board->WaitFor([&] { return AcceptsTcp(65535); }));
    EXPECT_FALSE(AcceptsTcp(12000));
    EXPECT_TRUE(board->WaitFor([&] { return board->OpenDescriptors() <= descriptors; }, 15s));

    for (const std::uint32_t port : {9999U, 65536U, 0U}) {
        Send(ToFixed(board->PcAddress() + "24", 20000));
        Send(ToFixed(board->PcAddress() + "24", port));
        EXPECT_EQ(Mode(), std::make_pair('f', 0U)) << port;
        EXPECT_EQ(board->ReadFile("/home/root/plexa_data/server_config"), "name=a\nport=0\n");
        EXPECT_FALSE(AcceptsTcp(20000));
    }

    const Bytes zeros(34, '\0');
    Send(zeros);
    EXPECT_EQ(Receive(300ms), "") << "zeros name no board here";
}

TEST_F(AddressChange, WhatIsNotThereIsNotRewritten)
{
    options.addressing = board::Addressing::Dhcp;
    Start();
    ASSERT_EQ(Found(board->LeaseAddress(), 10s), board->LeaseAddress());
    board->DhcpServer(false);
    Send(Bytes(34, '\0'));
    EXPECT_EQ(Receive(1000ms).substr(15), Bytes(34, '\0')) << "a request of zeros is acknowledged at once";

    // The DHCP client looks for a server; a fixed address ends it and answers go on meanwhile.
    board->WriteFile("/etc/network/interfaces", "iface eth0 inet dhcp");
    board->Forget();
    Send(ToDhcp());
    ASSERT_TRUE(board->WaitForCommand(kRestart));
    EXPECT_NE(Record(), Bytes(409, '\0')) << "discovery answers while the DHCP client looks for a server";
    const auto before = Clock::now();
    Send(ToFixed(board->BoardAddress(), 0));
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->BoardAddress(); }));
    EXPECT_LT(Clock::now() - before, 2s);
    EXPECT_TRUE(board->WaitForCommand("nameserver"));
    EXPECT_TRUE(DhcpClientIsGone());

    // Without an eth0 line, and without a file, nothing is applied at once.
    for (const bool exists : {true, false}) {
        if (exists)
            board->WriteFile("/etc/network/interfaces", "auto lo\n");
        else
            board->Run("rm /etc/network/interfaces");
        board->Forget();
        Send(ToFixed(board->PcAddress() + (exists ? "25" : "26")));
        ASSERT_TRUE(board->WaitForCommand("nameserver"));
        EXPECT_EQ(board->Commands().size(), 2U);
        EXPECT_EQ(board->TryReadFile("/etc/network/interfaces"),
                  exists ? std::optional<std::string>("auto lo\n") : std::nullopt);
        EXPECT_FALSE(board->Exists("/etc/network/interfaces_static"));
        EXPECT_EQ(board->Eth0Address(), board->BoardAddress());
    }
}

TEST_F(AddressChange, APortKnownFromStartStaysClosed)
{
    options.addressing = board::Addressing::Dhcp;
    options.files["/home/root/plexa_data/server_config"] = "port=12000\n";
    Start();
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->LeaseAddress(); }, 10s));
    Send(ToFixed(board->BoardAddress(), 12000));
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->BoardAddress(); }));
    EXPECT_EQ(Mode(), std::make_pair('f', 12000U));
    EXPECT_FALSE(AcceptsTcp(12000));
    EXPECT_TRUE(AcceptsTcp(8870));
}

// What was heard of the board on the cable, and when.
struct Arp {
    std::string kind; // "probe", "announcement" or ""
    std::string address;
    Clock::time_point at;
};

class AddressProbe : public Network
{
protected:
    void OpenCapture()
    {
        arp_ = board::Descriptor(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_ARP)));
    }

    // The next probe or announcement by the board; kind "" when none comes in time.
    Arp Heard(std::chrono::milliseconds limit)
    {
        const Bytes start("\0\1\x8\0\6\4\0\1\x2\x4c\x45\x44\0\0", 14);
        for (const auto end = Clock::now() + limit;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            pollfd waiting{.fd = arp_.Get(), .events = POLLIN, .revents = 0};
            if (left <= 0ms || poll(&waiting, 1, static_cast<int>(left.count())) != 1)
                return {};
            char packet[64];
            const ssize_t size = recv(arp_.Get(), packet, sizeof packet, 0);
            const Bytes bytes(packet, size < 0 ? 0 : static_cast<std::size_t>(size));
            if (bytes.size() < 28 || !bytes.starts_with(start) || bytes.substr(18, 6) != Bytes(6, '\0'))
                continue;
            const Bytes sender = bytes.substr(14, 4);
            const Bytes target = bytes.substr(24, 4);
            if (sender == target || sender == Bytes(4, '\0'))
                return {sender == target ? "announcement" : "probe", Dotted(target), Clock::now()};
        }
    }

    // Somebody else says that the address is his.
    void Claim(const std::string &address)
    {
        const Bytes mac("\2\0\0\0\0\x63", 6);
        const Bytes packet =
            Bytes("\0\1\x8\0\6\4\0\2", 8) + mac + Quad(address) + Bytes(6, '\xff') + Quad(address);
        sockaddr_ll everybody{};
        everybody.sll_family = AF_PACKET;
        everybody.sll_protocol = htons(ETH_P_ARP);
        everybody.sll_ifindex = static_cast<int>(if_nametoindex(board->PcInterface().c_str()));
        everybody.sll_halen = 6;
        std::memset(everybody.sll_addr, 0xff, 6);
        ASSERT_EQ(sendto(arp_.Get(), packet.data(), packet.size(), 0,
                         reinterpret_cast<const sockaddr *>(&everybody), sizeof everybody),
                  28);
    }

    // Three probes, the claim, two announcements; the address, or "" when it went another way.
    std::string ClaimSeen(std::vector<std::chrono::duration<double>> *gaps = nullptr)
    {
        std::string address;
        Clock::time_point last{};
        for (int count = 0; count < 5; ++count) {
            const Arp heard = Heard(count == 0 ? 15000ms : 4000ms);
            EXPECT_EQ(heard.kind, count < 3 ? "probe" : "announcement") << count;
            if (address.empty())
                address = heard.address;
            EXPECT_EQ(heard.address, address);
            if (gaps != nullptr && count > 0)
                gaps->push_back(heard.at - last);
            last = heard.at;
        }
        return HasFailure() ? "" : address;
    }

    board::Descriptor arp_;
};

TEST_F(AddressProbe, WithoutServerUnderConflictAndWithALateLease)
{
    options.addressing = board::Addressing::DhcpSilent;
    OpenCapture();
    const auto before = Clock::now();
    Start();
    std::vector<std::chrono::duration<double>> gaps;
    const std::string first = ClaimSeen(&gaps);
    ASSERT_TRUE(first.starts_with("169.254."));
    EXPECT_EQ(Found("169.254.", 2s), first) << "the record has it";
    EXPECT_LT(Clock::now() - before, 15s);
    EXPECT_EQ(board->Eth0Address(), first);
    EXPECT_EQ(Record().substr(kAddress + 4, 4), Backwards(Quad("255.255.0.0")));
    for (const std::size_t pause : {0U, 1U}) {
        EXPECT_GT(gaps[pause].count(), 0.7);
        EXPECT_LT(gaps[pause].count(), 2.5);
    }
    EXPECT_NEAR(gaps[2].count(), 2.0, 0.5);
    EXPECT_NEAR(gaps[3].count(), 2.0, 0.5);

    // A second host: once defended, then the board moves.
    Claim(first);
    EXPECT_EQ(Heard(1000ms).kind, "announcement");
    EXPECT_EQ(board->Eth0Address(), first);
    Claim(first);
    const Arp probe = Heard(3000ms);
    EXPECT_EQ(probe.kind, "probe");
    EXPECT_NE(probe.address, first);
    EXPECT_EQ(board->Eth0Address(), std::nullopt);
    // And while it probes: the next candidate at once.
    Claim(probe.address);
    const std::string third = ClaimSeen();
    EXPECT_NE(third, probe.address);
    EXPECT_EQ(Found("169.254.", 2s), third);

    // The DHCP client's script flushes it: it is probed for and put back.
    board->Run("ifconfig eth0 0.0.0.0");
    EXPECT_EQ(ClaimSeen(), third);
    EXPECT_EQ(Found("169.254.", 2s), third);

    // A lease: the link-local address goes.
    board->DhcpServer(true);
    ASSERT_TRUE(board->WaitFor([&] { return board->Eth0Address() == board->LeaseAddress(); }, 40s));
    EXPECT_EQ(Found(board->LeaseAddress(), 2s), board->LeaseAddress());
    EXPECT_EQ(board->Run("ip -4 addr show dev eth0 | grep -c inet").output, "1\n");
    EXPECT_EQ(Record().substr(kAddress + 8, 4), Backwards(Quad(board->PcAddress())));
    Claim(third); // the probe is over and hears it no more
    EXPECT_EQ(Heard(500ms).kind, "");
}

class Cable : public AddressProbe
{
protected:
    // The PC's own "ip" on the board's network: the board's cannot make interfaces.
    int Ip(const char *command)
    {
        int status = -1;
        board->InsideNetwork([&] { status = std::system(command); });
        return status;
    }

    // Returns when the daemon has said nothing for a while.
    void AwaitQuiet()
    {
        for (std::size_t lines = 0; lines != board->Log().size();) {
            lines = board->Log().size();
            board->WaitFor([&] { return lines != board->Log().size(); }, 400ms);
        }
    }
};

TEST_F(Cable, PulledAndNoServerAnyMore)
{
    options.addressing = board::Addressing::Dhcp;
    OpenCapture();
    Start();
    ASSERT_EQ(Found(board->LeaseAddress(), 10s), board->LeaseAddress());
    board->DhcpServer(false);
    board->Cable(false);
    EXPECT_TRUE(board->WaitForMessage(9));
    EXPECT_TRUE(board->WaitForCommand(kRestart));
    OpenCapture(); // what was probed for before the lease came does not count
    EXPECT_EQ(Heard(2000ms).kind, "") << "nothing is probed for without a link";
    const auto plugged = Clock::now();
    board->Cable(true);
    EXPECT_TRUE(ClaimSeen().starts_with("169.254."));
    EXPECT_GT(Clock::now() - plugged, 14s) << "a lease had its chance first";
    EXPECT_NE(Found("169.254.", 2s), "");

    // The server comes back with the cable.
    board->Cable(false);
    EXPECT_TRUE(board->WaitForMessage(9, 2));
    board->DhcpServer(true);
    board->Cable(true);
    EXPECT_EQ(Found(board->LeaseAddress(), 30s), board->LeaseAddress());
}

TEST_F(Cable, FlappingLeavesNothingBehind)
{
    options.addressing = board::Addressing::Dhcp;
    Start();
    ASSERT_EQ(Found(board->LeaseAddress(), 10s), board->LeaseAddress());
    const std::size_t descriptors = board->OpenDescriptors();
    for (int count = 0; count < 30; ++count) {
        board->Cable(false);
        board->WaitFor([] { return false; }, 50ms);
        board->Cable(true);
        board->WaitFor([] { return false; }, 50ms);
    }
    EXPECT_EQ(Found(board->LeaseAddress(), 30s), board->LeaseAddress());
    const std::vector<std::string> commands = board->Commands();
    EXPECT_LE(std::count(commands.begin(), commands.end(), kRestart), 12) << "one waits, not thirty";
    EXPECT_TRUE(board->WaitFor([&] { return board->OpenDescriptors() == descriptors; }, 15s));
    // All tick slots but one of the delay are free again: the next pull finds one.
    board->Forget();
    board->Cable(false);
    EXPECT_TRUE(board->WaitForLog("netlink event down."));
    EXPECT_FALSE(board->WaitForLog("no tick slot is empty", 1, 1500ms));
    EXPECT_TRUE(board->ThePlayer().Messages().size() > 0);
}

TEST_F(Cable, TheModemTakesTheDefaultRoute)
{
    Start();
    ASSERT_EQ(Ip("ip link add ppp0 type veth peer name ppp1 && ip addr add 10.64.0.1 peer 10.64.0.9 dev ppp0 "
                 "&& ip link set ppp1 up && ip link set ppp0 up"),
              0);
    for (const bool in : {false, true, false, true, false}) {
        AwaitQuiet();
        board->Cable(in);
    }
    AwaitQuiet();
    const std::string move = "route delete default;route add  default gw 10.64.0.9;"
                             "cp /etc/ppp/resolv.conf /var/run/resolv.conf";
    int moves = 0;
    for (const std::string &command : board->Commands()) {
        if (command.starts_with(move)) {
            EXPECT_EQ(command, move + (moves++ % 2 == 0 ? ";killall pppd" : ""));
        }
    }
    EXPECT_GE(moves, 3);
    EXPECT_EQ(board->Eth0Address(), board->BoardAddress()) << "a fixed address is left alone";

    // Another interface's link comes up while eth0 has no cable: up it is.
    board->Forget();
    EXPECT_EQ(Ip("ip link set ppp1 down; ip link set ppp1 up"), 0);
    EXPECT_TRUE(board->WaitForLog("netlink event up."));
    EXPECT_TRUE(board->WaitForLog("Enter SetPppGatway"));
    EXPECT_EQ(board->LogText().find("Enter ProcEth0Up"), std::string::npos);
}

} // namespace
