// SPDX-License-Identifier: MIT
// virtual_board/machine/errors.h: failed system calls as exceptions, with the system's reason.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace board
{

// "virtual board: WHAT: " and the text of errno.
[[noreturn]] inline void ThrowErrno(const std::string &what)
{
    throw std::system_error(errno, std::generic_category(), "virtual board: " + what);
}

// The result of a system call. Throws if it is negative.
inline int Checked(int result, const std::string &what)
{
    if (result < 0)
        ThrowErrno(what);
    return result;
}

} // namespace board
