// SPDX-License-Identifier: MIT
#include "sockets.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

void UniqueFd::Reset(int fd)
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

bool SetNonBlocking(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

void SetSessionSendLimit(int fd)
{
    const timeval limit{.tv_sec = 2, .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

long SendBytes(int fd, wire::Bytes bytes)
{
    ssize_t sent;
    do {
        sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    } while (sent == -1 && errno == EINTR);
    return sent;
}
