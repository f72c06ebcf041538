// SPDX-License-Identifier: MIT
#include "base/sockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace
{

constexpr std::chrono::seconds kSendLimit{2};

} // namespace

bool SetNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

void SetSessionSendLimit(int fd)
{
    const timeval limit{.tv_sec = kSendLimit.count(), .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

long SendBytes(int fd, wire::Bytes bytes)
{
    // A send that ran into the kernel's limit must not start again because that ended a little early.
    constexpr std::chrono::milliseconds kSlack{100};
    const auto end = std::chrono::steady_clock::now() + kSendLimit - kSlack;
    std::size_t taken = 0;
    do { // a signal ends a send early, with the bytes sent so far or, without any, with EINTR
        const ssize_t sent = send(fd, bytes.data() + taken, bytes.size() - taken, MSG_NOSIGNAL);
        if (sent == -1 && errno != EINTR)
            return taken == 0 ? -1 : static_cast<long>(taken);
        taken += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
    } while (taken < bytes.size() && std::chrono::steady_clock::now() < end);
    return taken == 0 && !bytes.empty() ? -1 : static_cast<long>(taken);
}
