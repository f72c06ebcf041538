// SPDX-License-Identifier: MIT
// virtual_board/machine/descriptor.h: owner of one file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace board
{

class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor() { Reset(); }

    void Reset()
    {
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
    }
    int Release() { return std::exchange(fd_, -1); }
    int Get() const { return fd_; }
    bool IsOpen() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// What went wrong while a board was built, as a sentence with the system's reason.
[[noreturn]] inline void ThrowErrno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), "virtual board: " + what);
}

inline int Checked(int result, const std::string &what)
{
    if (result < 0)
        ThrowErrno(what);
    return result;
}

} // namespace board
