// SPDX-License-Identifier: MIT
#include "common/unique_fd.h"

#include <unistd.h>

#include <cerrno>

namespace ledboard
{

void UniqueFd::Reset(int fd)
{
    if (fd_ >= 0) {
        const int error = errno; // callers report the failure because of which they let go
        close(fd_);
        errno = error;
    }
    fd_ = fd;
}

} // namespace ledboard
