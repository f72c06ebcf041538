// SPDX-License-Identifier: MIT
// What a board does when its cable or its DHCP server goes, as a PC on the same cable sees it.
#include "network_peer.h"

#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>

namespace
{

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
        EXPECT_LT(gaps[pause].count(), 3.0);
    }
    EXPECT_NEAR(gaps[2].count(), 2.0, 0.9);
    EXPECT_NEAR(gaps[3].count(), 2.0, 0.9);

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
