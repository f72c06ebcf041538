// SPDX-License-Identifier: MIT
// network_peer.h — a board and the PC's discovery socket on the same cable; wire bytes are typed by hand.
#pragma once

#include "board_test.h"
#include "peer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Bytes = std::string;

constexpr char kRestart[] = "killall -9 udhcpc; udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0";
constexpr std::size_t kId = 28; // of the record in a search reply
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
            std::string address = AddressInRecord(200ms);
            if (address.starts_with(start))
                return address;
            board->WaitFor([] { return false; }, 100ms);
        }
        return "";
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
        return Change(address, board->PcAddress(), 0, port);
    }

    // {mode, custom port} by status command 1.
    std::pair<char, std::uint32_t> Mode(const std::string &to = "255.255.255.255", int port = 8878)
    {
        Send(Le32(1) + Record().substr(kId, 14), to, port);
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
