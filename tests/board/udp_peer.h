// SPDX-License-Identifier: MIT
// tests/board/udp_peer.h: a PC's UDP socket on 0.0.0.0, which reports source, destination and interface of
// each datagram.
#pragma once

#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"
#include "session_packets.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>

struct Datagram {
    std::string bytes;
    std::string source;      // dotted address
    std::uint16_t port = 0;  // of the source
    std::string destination; // the address it was sent to
    std::string interface;   // the one it came in by
};

class UdpPeer
{
public:
    // Sends and receives through that interface only, if one is named.
    explicit UdpPeer(const std::string &interface = "") : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const int on = 1;
        setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        setsockopt(fd_.Get(), IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        if (!interface.empty())
            setsockopt(fd_.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                       static_cast<socklen_t>(interface.size()));
        sockaddr_in any{};
        any.sin_family = AF_INET;
        bind(fd_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any);
    }

    bool Send(const std::string &bytes, const std::string &address, std::uint16_t port = 8878) const
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        inet_pton(AF_INET, address.c_str(), &to.sin_addr);
        return sendto(fd_.Get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                      sizeof to) == static_cast<ssize_t>(bytes.size());
    }

    std::optional<Datagram> Receive(int milliseconds = 20'000) const
    {
        pollfd waiting{.fd = fd_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, milliseconds) != 1)
            return std::nullopt;
        char bytes[2048];
        alignas(cmsghdr) char control[256];
        sockaddr_in source{};
        iovec part{.iov_base = bytes, .iov_len = sizeof bytes};
        msghdr message{};
        message.msg_name = &source;
        message.msg_namelen = sizeof source;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t count = recvmsg(fd_.Get(), &message, 0);
        if (count < 0)
            return std::nullopt;
        in_pktinfo information{};
        std::memcpy(&information, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof information);
        char name[IF_NAMESIZE] = "";
        if_indextoname(static_cast<unsigned>(information.ipi_ifindex), name);
        return Datagram{{bytes, static_cast<std::size_t>(count)},
                        Text(source.sin_addr),
                        ntohs(source.sin_port),
                        Text(information.ipi_addr),
                        name};
    }

    // The reply to one datagram.
    std::optional<Datagram> Ask(const std::string &bytes, const std::string &address,
                                std::uint16_t port = 8878) const
    {
        return Send(bytes, address, port) ? Receive() : std::nullopt;
    }

private:
    static std::string Text(in_addr address)
    {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &address, text, sizeof text);
        return text;
    }

    ledboard::UniqueFd fd_;
};

// A search as a tool sends it; only its length counts.
inline std::string SearchBytes()
{
    constexpr std::uint16_t kVersion = 1;
    constexpr char kType = 7;
    return ProtocolHeader(kVersion, kSearchSize, kType) + Zeros(kSearchSize - kHeaderSize);
}

// The daemon as it was before a test tries something on it: Check expects the same answer to a search and as
// many open descriptors.
class Unharmed
{
public:
    explicit Unharmed(board::VirtualBoard &board) : board_(board), reply_(Search())
    {
        EXPECT_EQ(reply_.size(), kSearchReplySize);
        SettledDescriptors(board);
        // With the first client the daemon opens a descriptor that it keeps as a reserve.
        const Peer first = Peer::Connect(board.Network().BoardAddress(), 8870);
        EXPECT_TRUE(first.Send(Zeros(8)) && first.Ended());
        descriptors_ = board.Daemon().OpenDescriptors();
    }
    void Check(const std::string &what) const
    {
        EXPECT_EQ(Search(), reply_) << what;
        EXPECT_TRUE(board_.WaitFor([this] { return board_.Daemon().OpenDescriptors() == descriptors_; }))
            << what << ": " << board_.Daemon().OpenDescriptors() << " descriptors instead of "
            << descriptors_;
    }

private:
    std::string Search() const
    {
        const auto reply = UdpPeer().Ask(SearchBytes(), board_.Network().BoardAddress());
        return reply ? reply->bytes : "no answer";
    }

    board::VirtualBoard &board_;
    std::string reply_;
    std::size_t descriptors_;
};
