// SPDX-License-Identifier: MIT
// What a board does when its cable or its DHCP server goes, as a PC on the same cable sees it.
#include "common/unique_fd.h"
#include "network_peer.h"
#include "player_codes.h"
#include "remote_packets.h"

#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <fstream>

namespace
{

// Fields of the ARP packets that all of these share, up to the sender's MAC; in network byte order.
Bytes ArpStart(char operation, const Bytes &senderMac)
{
    const Bytes ethernet("\0\1", 2);
    const Bytes ipv4("\x08\0", 2);
    const Bytes sizes("\6\4", 2); // of a MAC and of an IPv4 address
    return ethernet + ipv4 + sizes + '\0' + operation + senderMac;
}

constexpr char kArpRequest = 1;
constexpr char kArpReply = 2;

constexpr std::size_t kArpSize = 28;
constexpr std::size_t kSenderAt = 14;
constexpr std::size_t kTargetMacAt = 18;
constexpr std::size_t kTargetAt = 24;

// A packet of the board, and when it was sent.
struct Arp {
    std::string kind; // "probe", "announcement" or ""
    std::string address;
    std::chrono::duration<double> at{};
};

class AddressProbe : public Network
{
protected:
    void OpenCapture()
    {
        arp_ = ledboard::UniqueFd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_ARP)));
        SentAt(); // the kernel notes the times from now on
    }

    // When the packet that was read last was sent. This process may have read it late.
    std::chrono::duration<double> SentAt()
    {
        timespec time{};
        ioctl(arp_.Get(), SIOCGSTAMPNS, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    // The next probe or announcement of the board; kind "" if it does not come in time.
    Arp Heard(std::chrono::milliseconds limit)
    {
        const Bytes boardMac("\x02\x4c\x45\x44\0\0", 6);
        const Bytes start = ArpStart(kArpRequest, boardMac);
        for (const auto end = Clock::now() + limit;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            pollfd waiting{.fd = arp_.Get(), .events = POLLIN, .revents = 0};
            if (left <= 0ms || poll(&waiting, 1, static_cast<int>(left.count())) != 1)
                return {};
            char packet[64];
            const ssize_t size = recv(arp_.Get(), packet, sizeof packet, 0);
            const Bytes bytes(packet, size < 0 ? 0 : static_cast<std::size_t>(size));
            if (bytes.size() < kArpSize || !bytes.starts_with(start) ||
                bytes.substr(kTargetMacAt, 6) != Zeros(6))
                continue;
            const Bytes sender = bytes.substr(kSenderAt, 4);
            const Bytes target = bytes.substr(kTargetAt, 4);
            if (sender == target || sender == Zeros(4))
                return {sender == target ? "announcement" : "probe", Dotted(target), SentAt()};
        }
    }

    // Another host claims the address.
    void Claim(const std::string &address)
    {
        const Bytes mac("\2\0\0\0\0\x63", 6);
        const Bytes targetMac(6, '\xff');
        const Bytes packet = ArpStart(kArpReply, mac) + Quad(address) + targetMac + Quad(address);
        sockaddr_ll everybody{};
        everybody.sll_family = AF_PACKET;
        everybody.sll_protocol = htons(ETH_P_ARP);
        everybody.sll_ifindex = static_cast<int>(if_nametoindex(board->Network().PcInterface().c_str()));
        everybody.sll_halen = 6;
        std::memset(everybody.sll_addr, 0xff, 6);
        ASSERT_EQ(sendto(arp_.Get(), packet.data(), packet.size(), 0,
                         reinterpret_cast<const sockaddr *>(&everybody), sizeof everybody),
                  static_cast<ssize_t>(kArpSize));
    }

    // Expects three probes and two announcements of the same address. The address, or "" if they differ.
    std::string ClaimSeen(std::vector<std::chrono::duration<double>> *gaps = nullptr)
    {
        std::string address;
        std::chrono::duration<double> last{};
        for (int count = 0; count < 5; ++count) {
            const Arp heard = Heard(count == 0 ? 25000ms : 6000ms);
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

    ledboard::UniqueFd arp_;
};

TEST_F(AddressProbe, ClaimsAnAddressMovesAfterConflictsAndYieldsToALease)
{
    options.addressing = board::Addressing::kDhcpSilent;
    OpenCapture();
    const auto before = Clock::now();
    Start();
    std::vector<std::chrono::duration<double>> gaps;
    const std::string first = ClaimSeen(&gaps);
    ASSERT_TRUE(first.starts_with("169.254."));
    EXPECT_EQ(Found("169.254.", kMaxRecordDelay), first) << "the record has it";
    EXPECT_LT(Clock::now() - before, 15s);
    EXPECT_EQ(board->Network().Eth0Address(), first);
    EXPECT_EQ(Record().substr(kMaskAt, 4), Backwards(Quad("255.255.0.0")));
    // A tick may come up to a quarter of a second early; late ticks shift what follows.
    for (const std::size_t pause : {0U, 1U})
        EXPECT_GT(gaps[pause].count(), 0.7);
    for (const std::size_t pause : {2U, 3U})
        EXPECT_GT(gaps[pause].count(), 1.7);
    for (const auto gap : gaps)
        EXPECT_LT(gap.count(), 3.5);

    // A second host: the board defends its address once, then it moves.
    Claim(first);
    EXPECT_EQ(Heard(5000ms).kind, "announcement");
    EXPECT_EQ(board->Network().Eth0Address(), first);
    Claim(first);
    const Arp probe = Heard(6000ms);
    EXPECT_EQ(probe.kind, "probe");
    EXPECT_NE(probe.address, first);
    EXPECT_EQ(board->Network().Eth0Address(), std::nullopt);
    // A conflict while it probes: the board tries the next candidate at once.
    Claim(probe.address);
    const std::string third = ClaimSeen();
    EXPECT_NE(third, probe.address);
    EXPECT_EQ(Found("169.254.", kMaxRecordDelay), third);

    // The DHCP client's script removes the address: the board probes for it and sets it again.
    board->Run("ifconfig eth0 0.0.0.0");
    EXPECT_EQ(ClaimSeen(), third);
    EXPECT_EQ(Found("169.254.", kMaxRecordDelay), third);

    // A lease: the link-local address is removed.
    board->Network().DhcpServer(true);
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); },
                       kMaxLeaseDelay));
    EXPECT_EQ(Found(board->Network().LeaseAddress(), kMaxRecordDelay), board->Network().LeaseAddress());
    EXPECT_EQ(board->Run("ip -4 addr show dev eth0 | grep -c inet").output, "1\n");
    EXPECT_EQ(Record().substr(kGatewayAt, 4), Backwards(Quad(board->Network().PcAddress())));
    Claim(third); // the probe has ended and does not answer
    EXPECT_EQ(Heard(500ms).kind, "");
}

class Cable : public AddressProbe
{
protected:
    // The PC's own "ip" in the board's network: the board's cannot create interfaces.
    int Ip(const char *command)
    {
        int status = -1;
        board->Network().Inside([&] { status = std::system(command); });
        return status;
    }

    // Returns when the daemon has handled this link message and all before it.
    void MoveCable(bool in)
    {
        const std::string line = in ? "netlink event up." : "netlink event down.";
        const std::size_t seen = Lines(line);
        board->Network().Cable(in);
        ASSERT_TRUE(board->Record().WaitForLog(line, seen + 1, 20s));
    }

    std::size_t Lines(const std::string &text)
    {
        return static_cast<std::size_t>(
            std::ranges::count_if(board->Record().Log(), [&](const std::string &line) {
                return line.find(text) != std::string::npos;
            }));
    }
};

TEST_F(Cable, PulledAndWithoutAServerALinkLocalAddressIsClaimed)
{
    options.addressing = board::Addressing::kDhcp;
    OpenCapture();
    Start();
    ASSERT_EQ(Found(board->Network().LeaseAddress(), kMaxLeaseDelay), board->Network().LeaseAddress());
    board->Network().DhcpServer(false);
    board->Network().Cable(false);
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerNetworkError));
    EXPECT_TRUE(board->Record().WaitForCommand(kRestart));
    OpenCapture(); // probes from before the lease do not count
    EXPECT_EQ(Heard(2000ms).kind, "") << "no probe without a link";
    const auto plugged = Clock::now();
    board->Network().Cable(true);
    EXPECT_TRUE(ClaimSeen().starts_with("169.254."));
    EXPECT_GT(Clock::now() - plugged, 14s) << "the DHCP client had its time first";
    EXPECT_NE(Found("169.254.", kMaxRecordDelay), "");

    // The cable is plugged in again, and the server answers.
    board->Network().Cable(false);
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerNetworkError, 2));
    board->Network().DhcpServer(true);
    board->Network().Cable(true);
    EXPECT_EQ(Found(board->Network().LeaseAddress(), kMaxLeaseDelay), board->Network().LeaseAddress());
}

class FlappingCable : public Cable
{
protected:
    // As fast as the daemon handles it.
    void Flap(int times)
    {
        for (; times > 0 && !HasFatalFailure(); --times) {
            MoveCable(false);
            MoveCable(true);
        }
    }

    // The daemon's own memory in KiB; 0 under a sanitizer, which adds to it.
    long Memory()
    {
        if (getenv("ASAN_OPTIONS") != nullptr || getenv("TSAN_OPTIONS") != nullptr)
            return 0;
        std::ifstream file("/proc/" + std::to_string(board->Daemon().Pid()) + "/status");
        for (std::string word; file >> word;) {
            long number = 0;
            if (word == "RssAnon:" && file >> number)
                return number;
        }
        ADD_FAILURE() << "no RssAnon";
        return 0;
    }

    void ExpectAsBefore(std::size_t descriptors, long memory)
    {
        EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().OpenDescriptors() <= descriptors; }, 20s));
        EXPECT_LE(Memory(), memory + 48);
    }
};

TEST_F(FlappingCable, KeepsAFixedAddressAndLeaksNothing)
{
    Start();
    Flap(10);
    const std::size_t descriptors = SettledDescriptors(*board);
    const long memory = Memory();
    Flap(100);
    EXPECT_EQ(Found(board->Network().BoardAddress(), 10s), board->Network().BoardAddress());
    ExpectAsBefore(descriptors, memory);
}

TEST_F(FlappingCable, LeavesTickSlotsForTheOthers)
{
    options.addressing = board::Addressing::kDhcp;
    options.files["/home/root/plexa_data/remote_server"] = "ip=127.0.0.1\nport=7001\nusername=user\n";
    options.startDaemon = false;
    Start();
    const ledboard::UniqueFd listener(board->Network().Socket(AF_INET, SOCK_STREAM));
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(7001);
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr *>(&here), sizeof here), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    board->Daemon().Start();
    const Peer server(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_EQ(server.Take(kRemoteLoginSize).size(), kRemoteLoginSize);
    ASSERT_EQ(Found(board->Network().LeaseAddress(), kMaxLeaseDelay), board->Network().LeaseAddress());
    Flap(10);
    const std::size_t descriptors = SettledDescriptors(*board);
    const long memory = Memory();

    // The server's answer, which adds the heartbeat to the tick table, comes when the table is full.
    for (std::size_t refused = 0; refused == 0;
         refused = Lines("no tick slot is empty, the function is not run."))
        Flap(1);
    ASSERT_TRUE(server.Send(RemoteLoginAnswer(0)));
    EXPECT_EQ(server.Take(kDeviceParamSize).size(), kDeviceParamSize);
    Flap(100);
    EXPECT_EQ(Found(board->Network().LeaseAddress(), kMaxLeaseDelay), board->Network().LeaseAddress());
    // The record has changed: the board may send it before the heartbeat.
    const std::string heartbeat = RemoteHeartbeat();
    std::string packet = server.Take(heartbeat.size(), 10000);
    for (; packet.starts_with(Le32(kDeviceParamSize)); packet = server.Take(heartbeat.size(), 10000)) {
        const std::size_t rest = kDeviceParamSize - heartbeat.size();
        EXPECT_EQ(server.Take(rest).size(), rest);
    }
    EXPECT_EQ(packet, heartbeat) << "the heartbeat has its slot";
    const std::vector<std::string> commands = board->Record().Commands();
    EXPECT_LE(std::count(commands.begin(), commands.end(), kRestart), 60)
        << "a command that already waits is not added again";
    ExpectAsBefore(descriptors, memory);
    // The delay has left no entries in the tick table: the next pull finds a slot.
    board->Forget();
    Flap(1);
    EXPECT_EQ(Lines("no tick slot is empty"), 0U);
    EXPECT_FALSE(board->Player().Messages().empty());
}

TEST_F(Cable, TheModemTakesTheDefaultRoute)
{
    options.startDaemon = false;
    Start();
    ASSERT_EQ(Ip("ip link add ppp0 type veth peer name ppp1 && ip addr add 10.64.0.1 peer 10.64.0.9 dev ppp0 "
                 "&& ip link set ppp1 up && ip link set ppp0 up"),
              0);
    ASSERT_TRUE(board->WaitFor([&] { return Ip("ip link show ppp0 | grep -q LOWER_UP") == 0; }));
    board->Daemon().Start();
    const std::string move = "route delete default;route add  default gw 10.64.0.9;"
                             "cp /etc/ppp/resolv.conf /var/run/resolv.conf";
    for (const std::size_t pulls : {1U, 2U, 3U}) {
        MoveCable(false);
        EXPECT_TRUE(board->Record().WaitForCommand(move, pulls));
        if (pulls < 3)
            MoveCable(true);
    }
    int moves = 0;
    for (const std::string &command : board->Record().Commands()) {
        if (command.starts_with(move)) {
            EXPECT_EQ(command, move + (moves++ % 2 == 0 ? ";killall pppd" : ""));
        }
    }
    EXPECT_EQ(board->Network().Eth0Address(), board->Network().BoardAddress())
        << "a fixed address does not change";

    // The link of another interface comes up while eth0 has no cable: the board takes it for its own.
    board->Forget();
    EXPECT_EQ(Ip("ip link set ppp1 down; ip link set ppp1 up"), 0);
    EXPECT_TRUE(board->Record().WaitForLog("netlink event up."));
    EXPECT_TRUE(board->Record().WaitForLog("Enter SetPppGatway"));
    EXPECT_EQ(board->Record().LogText().find("Enter ProcEth0Up"), std::string::npos);
}

} // namespace
