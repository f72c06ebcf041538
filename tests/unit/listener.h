// SPDX-License-Identifier: MIT
// tests/unit/listener.h: a TCP listener on a free port of the loopback, and what a client gets until its end.
#pragma once

#include "common/unique_fd.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

class Listener
{
public:
    Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        const timeval limit{15, 0};
        setsockopt(fd_.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(fd_.Get(), 4), 0);
        getsockname(fd_.Get(), reinterpret_cast<sockaddr *>(&address), &size);
        port = ntohs(address.sin_port);
    }
    int Accept() const { return accept(fd_.Get(), nullptr, nullptr); }
    int port = 0;

private:
    ledboard::UniqueFd fd_;
};

inline std::string ReceiveAll(int fd)
{
    std::string received;
    char block[512];
    for (ssize_t count; (count = recv(fd, block, sizeof block, 0)) > 0;)
        received.append(block, static_cast<std::size_t>(count));
    return received;
}
