// SPDX-License-Identifier: MIT
// tool/unique_fd.h: owns one descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace ledboard
{

class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    int Get() const { return fd_; }

private:
    int fd_ = -1;
};

} // namespace ledboard
