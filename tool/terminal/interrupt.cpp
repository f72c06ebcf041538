// SPDX-License-Identifier: MIT
#include "terminal/interrupt.h"

#include "common/pc/verb_error.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace ledboard
{

namespace
{

// An eventfd that the first signal makes readable. Nobody reads it, so it stays readable for every waiter.
int s_interruptFd = -1;

void OnSignal(int)
{
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(s_interruptFd, &one, sizeof one);
    errno = savedErrno;
}

} // namespace

void WatchInterrupt()
{
    if (s_interruptFd >= 0)
        return;
    s_interruptFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (s_interruptFd < 0)
        throw SystemError("cannot watch for interrupts", errno);
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    // The second signal has its default effect.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted()
{
    pollfd watched = {s_interruptFd, POLLIN, 0};
    return s_interruptFd >= 0 && poll(&watched, 1, 0) > 0;
}

bool WaitFor(int fd, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd watched[2] = {{fd, events, 0}, {s_interruptFd, POLLIN, 0}};
        // The timeout is limited because deadlines may lie years ahead; the loop continues.
        const int ready = poll(watched, 2, static_cast<int>(std::clamp<long long>(left, 0, 60'000)));
        if (ready < 0 && errno != EINTR)
            throw SystemError("cannot wait", errno);
        if (ready > 0 && watched[1].revents != 0)
            throw VerbError(ExitStatus::kInterrupted, "interrupted");
        if (ready > 0 && watched[0].revents != 0)
            return true;
        if (Clock::now() >= deadline)
            return false;
    }
}

} // namespace ledboard
