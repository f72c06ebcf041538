// SPDX-License-Identifier: MIT
// tests/board/peer.h: a plain TCP peer of the board, and integers and texts as they are typed into packets.
#pragma once

#include "common/unique_fd.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

inline std::string Le32(std::uint32_t value)
{
    std::string text;
    for (int shift = 0; shift < 32; shift += 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

inline std::string Le16(std::size_t value)
{
    return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8 & 0xFF)};
}

inline std::string Zeros(std::size_t count)
{
    return std::string(count, '\0');
}

// A text in a field of `size` bytes.
inline std::string Field(const std::string &text, std::size_t size)
{
    return text + Zeros(size - text.size());
}

inline sockaddr_in At(const std::string &address, std::uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &result.sin_addr);
    return result;
}

class Peer
{
public:
    Peer() = default;
    explicit Peer(int fd) : fd_(fd) {}

    static Peer Connect(const std::string &address, std::uint16_t port)
    {
        Peer peer(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in to = At(address, port);
        if (connect(peer.fd_.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
            return {};
        return peer;
    }

    bool Connected() const { return fd_.Get() >= 0; }
    int Get() const { return fd_.Get(); }
    bool Send(const std::string &bytes) const
    {
        return send(fd_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    // Exactly `count` bytes; fewer if the connection ends or is silent for `limit` milliseconds before.
    std::string Take(std::size_t count, int limit = 20'000) const
    {
        std::string bytes;
        char block[4096];
        while (bytes.size() < count && Readable(limit)) {
            const ssize_t got = recv(fd_.Get(), block, std::min(sizeof block, count - bytes.size()), 0);
            if (got <= 0)
                break;
            bytes.append(block, static_cast<std::size_t>(got));
        }
        return bytes;
    }
    bool Silent(int milliseconds) const { return !Readable(milliseconds); }
    bool Ended(int limit = 20'000) const // nothing more came, and then the end
    {
        char byte;
        return Readable(limit) && recv(fd_.Get(), &byte, 1, 0) <= 0;
    }

private:
    bool Readable(int milliseconds) const
    {
        pollfd waiting{.fd = fd_.Get(), .events = POLLIN, .revents = 0};
        return poll(&waiting, 1, milliseconds) == 1;
    }

    ledboard::UniqueFd fd_;
};
