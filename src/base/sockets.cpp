// SPDX-License-Identifier: MIT
#include "base/sockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

bool SetNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

static constexpr std::chrono::seconds kSendLimit{2};

void SetSessionSendLimit(int fd)
{
    const timeval limit{.tv_sec = kSendLimit.count(), .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

long SendBytes(int fd, wire::Bytes bytes)
{
    constexpr std::chrono::milliseconds kSlack{100}; // the kernel's limit may end a little early
    const auto end = std::chrono::steady_clock::now() + kSendLimit - kSlack;
    std::size_t taken = 0;
    do { // a send that a signal ends gives the bytes so far, or EINTR when there are none
        const ssize_t sent = send(fd, bytes.data() + taken, bytes.size() - taken, MSG_NOSIGNAL);
        if (sent == -1 && errno != EINTR)
            return taken == 0 ? -1 : static_cast<long>(taken);
        taken += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
    } while (taken < bytes.size() && std::chrono::steady_clock::now() < end);
    return taken == 0 && !bytes.empty() ? -1 : static_cast<long>(taken);
}
