// SPDX-License-Identifier: MIT
// tests/board/network_peer.h: a board and the PC's discovery socket on the same cable; wire bytes are typed
// by hand.
#pragma once

#include "board_test.h"
#include "common/unique_fd.h"
#include "peer.h"

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
constexpr auto kTwoSeconds = 4s; // within which a new address shows in discovery; a busy machine may double
                                 // it
constexpr auto kLeaseTime = 40s; // the DHCP client asks, waits, asks again
constexpr std::size_t kId = 28;  // of the record in a search reply
constexpr std::size_t kAddress = 59;

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

    // Every datagram has a number in its header, which an answer repeats.
    void Send(const Bytes &payload, const std::string &to = "255.255.255.255", int port = 8878)
    {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, to.c_str(), &peer.sin_addr);
        const Bytes datagram = Bytes("ft\1\0\x1e\0\7", 7) + Le32(++number_) + Zeros(4) + payload;
        sendto(udp_.Get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&peer),
               sizeof peer);
    }

    // The answer to what was sent last, empty when none comes in time. Late answers to others do not count.
    Bytes Receive(std::chrono::milliseconds limit = 5s)
    {
        for (const auto end = Clock::now() + limit;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            pollfd waiting{.fd = udp_.Get(), .events = POLLIN, .revents = 0};
            if (poll(&waiting, 1, std::max(0, static_cast<int>(left.count()))) != 1)
                return {};
            Bytes datagram(1024, '\0');
            const ssize_t size = recv(udp_.Get(), datagram.data(), datagram.size(), 0);
            if (size < 15)
                continue;
            datagram.resize(static_cast<std::size_t>(size));
            const Bytes number = datagram.substr(7, 4);
            answered_.insert(number);
            if (number == Le32(number_))
                return datagram;
        }
    }

    // Sends what the board is not to answer; false when it does, before the answer to a search behind it.
    bool SendsUnanswered(const Bytes &payload)
    {
        Send(payload);
        const Bytes number = Le32(number_);
        EXPECT_NE(Record(), Bytes(409, '\0'));
        return !answered_.contains(number);
    }

    Bytes Record(std::chrono::milliseconds limit = 5s)
    {
        Send(Bytes(15, '\0'));
        const Bytes reply = Receive(limit);
        return reply.size() == 409 ? reply : Bytes(409, '\0');
    }

    std::string AddressInRecord(std::chrono::milliseconds limit)
    {
        return Dotted(Record(limit).substr(kAddress, 4));
    }

    // Asks until the record holds an address that begins like this. The address, or "" when time is over.
    std::string Found(const std::string &start, std::chrono::milliseconds limit)
    {
        std::string address;
        const auto isThere = [&] {
            address = AddressInRecord(200ms);
            return address.starts_with(start);
        };
        return board->WaitFor(isThere, limit) ? address : "";
    }

    Bytes Change(const std::string &address, const std::string &gateway, std::uint32_t dhcp,
                 std::uint32_t port)
    {
        return Quad(address) + Quad("255.255.255.0") + Quad(gateway) + Le32(dhcp) + Le32(port) +
               Record().substr(kId, 14);
    }
    Bytes ToDhcp() { return Change("0.0.0.0", "0.0.0.0", 1, 0); }
    Bytes ToFixed(const std::string &address, std::uint32_t port = 0)
    {
        return Change(address, board->Network().PcAddress(), 0, port);
    }

    // {mode, custom port} by status command 1.
    std::pair<char, std::uint32_t> Mode(const std::string &to = "255.255.255.255", int port = 8878)
    {
        Send(Le32(1) + Record().substr(kId, 14), to, port);
        const Bytes reply = Receive();
        std::uint32_t customPort = 0;
        if (reply.size() != 41)
            return {'?', 0};
        std::memcpy(&customPort, reply.data() + 23, sizeof customPort);
        return {reply[19] == 1 ? 'd' : 'f', customPort};
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
    std::set<Bytes> answered_; // numbers
};
