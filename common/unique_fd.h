// SPDX-License-Identifier: MIT
// common/unique_fd.h: owns one file descriptor and closes it.
#pragma once

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
        Reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; } // -1: owns nothing
    bool Valid() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); } // the caller owns it from now on
    void Reset(int fd = -1);                         // closes what it owned; errno stays as it was

private:
    int fd_ = -1;
};

} // namespace ledboard
