// SPDX-License-Identifier: MIT
// tests/board/network_peer.h: a board and the PC's discovery socket on the same cable.
#pragma once

#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <set>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::string;

constexpr char kRestart[] = "killall -9 udhcpc; udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0";
constexpr auto kMaxRecordDelay = 4s; // 2 s until a search finds a new address; twice that on a busy machine
constexpr auto kMaxLeaseDelay = 40s; // the DHCP client asks, waits, asks again

inline Bytes Quad(const std::string &dotted)
{
    in_addr address{};
    inet_pton(AF_INET, dotted.c_str(), &address);
    return {reinterpret_cast<const char *>(&address), sizeof address};
}

inline std::string Dotted(const Bytes &quad)
{
    char text[INET_ADDRSTRLEN] = {};
    return inet_ntop(AF_INET, quad.data(), text, sizeof text);
}

inline Bytes Backwards(Bytes bytes)
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
        udp_ = ledboard::UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(udp_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        const std::string interface = board->Network().PcInterface();
        ASSERT_EQ(setsockopt(udp_.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                             static_cast<socklen_t>(interface.size() + 1)),
                  0);
    }

    // Every datagram has a number in the place of ph_data_crc, which an answer repeats.
    void Send(const Bytes &payload, const std::string &to = "255.255.255.255", int port = 8878)
    {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, to.c_str(), &peer.sin_addr);
        constexpr std::uint16_t kVersion = 1;
        constexpr char kType = 7;
        const Bytes datagram = ProtocolHeader(kVersion, kSearchSize, kType, ++number_) + payload;
        sendto(udp_.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
               sizeof peer);
    }

    // The answer to the last datagram; empty if it does not come in time. Late answers to others do not
    // count.
    Bytes Receive(std::chrono::milliseconds limit = 5s)
    {
        for (const auto end = Clock::now() + limit;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            pollfd waiting{.fd = udp_.Get(), .events = POLLIN, .revents = 0};
            if (poll(&waiting, 1, std::max(0, static_cast<int>(left.count()))) != 1)
                return {};
            Bytes datagram(1024, '\0');
            const ssize_t size = recv(udp_.Get(), datagram.data(), datagram.size(), 0);
            if (size < static_cast<ssize_t>(kHeaderSize))
                continue;
            datagram.resize(static_cast<std::size_t>(size));
            constexpr std::size_t kNumberAt = 7;
            const Bytes number = datagram.substr(kNumberAt, 4);
            answered_.insert(number);
            if (number == Le32(number_))
                return datagram;
        }
    }

    // Sends what the board must not answer; false if its answer comes before that to the next search.
    bool SendsUnanswered(const Bytes &payload)
    {
        Send(payload);
        const Bytes number = Le32(number_);
        EXPECT_NE(Record(), kNoRecord);
        return !answered_.contains(number);
    }

    // The answer to a search.
    Bytes Record(std::chrono::milliseconds limit = 5s)
    {
        Send(Zeros(kSearchSize - kHeaderSize));
        const Bytes reply = Receive(limit);
        return reply.size() == kSearchReplySize ? reply : kNoRecord;
    }
    const Bytes kNoRecord = Zeros(kSearchReplySize);

    std::string AddressInRecord(std::chrono::milliseconds limit)
    {
        return Dotted(Record(limit).substr(kAddressAt, 4));
    }

    // Asks until the record holds an address that begins like this. The address, or "" after `limit`.
    std::string Found(const std::string &start, std::chrono::milliseconds limit)
    {
        std::string address;
        const auto isThere = [&] {
            address = AddressInRecord(200ms);
            return address.starts_with(start);
        };
        return board->WaitFor(isThere, limit) ? address : "";
    }

    enum AddressingMode : std::uint32_t { kFixed = 0, kDhcp = 1 };

    Bytes Change(const std::string &address, const std::string &gateway, std::uint32_t dhcp,
                 std::uint32_t port)
    {
        return Quad(address) + Quad("255.255.255.0") + Quad(gateway) + Le32(dhcp) + Le32(port) +
               Record().substr(kIdAt, kIdSize);
    }
    Bytes ToDhcp() { return Change("0.0.0.0", "0.0.0.0", kDhcp, 0); }
    Bytes ToFixed(const std::string &address, std::uint32_t port = 0)
    {
        return Change(address, board->Network().PcAddress(), kFixed, port);
    }

    // {'d' dynamic or 'f' fixed, custom port}; '?' without an answer.
    std::pair<char, std::uint32_t> Mode(const std::string &to = "255.255.255.255", int port = 8878)
    {
        Send(Le32(kStatusAddressing) + Record().substr(kIdAt, kIdSize), to, port);
        const Bytes reply = Receive();
        std::uint32_t customPort = 0;
        if (reply.size() != kAddressingReplySize)
            return {'?', 0};
        constexpr std::size_t kModeAt = 19;
        constexpr std::size_t kPortAt = 23;
        std::memcpy(&customPort, reply.data() + kPortAt, sizeof customPort);
        return {reply[kModeAt] == static_cast<char>(kDhcp) ? 'd' : 'f', customPort};
    }

    bool AcceptsTcp(int port)
    {
        const ledboard::UniqueFd tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, board->Network().Eth0Address().value_or("").c_str(), &peer.sin_addr);
        return connect(tcp.Get(), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0;
    }

    bool DhcpClientIsGone()
    {
        return board->WaitFor([&] { return board->Run("pidof udhcpc").output.empty(); });
    }
    std::string Interfaces() { return board->Root().Read("/etc/network/interfaces"); }

    ledboard::UniqueFd udp_;
    std::uint32_t number_ = 0;
    std::set<Bytes> answered_; // numbers of datagrams
};
