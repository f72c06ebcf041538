// SPDX-License-Identifier: MIT
// src/base/sockets.h: descriptors that close themselves, and sends that neither raise SIGPIPE nor stall the
// caller for long.
#pragma once

#include "records/wire_types.h"

#include <utility>

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        Reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; }
    bool Valid() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    void Reset(int fd = -1);

private:
    int fd_ = -1;
};

// Sets O_NONBLOCK. True when it is set.
bool SetNonBlocking(int fd);

// Gives a blocking socket the time limit that every send on a session has (2 s in all, then a short count).
void SetSessionSendLimit(int fd);

// Sends all bytes without SIGPIPE and goes on after a signal, for some 2 s in all however many signals come.
// The number of bytes taken by the kernel, fewer than all when the peer does not read; -1 with errno when
// none was.
long SendBytes(int fd, wire::Bytes bytes);
