// SPDX-License-Identifier: MIT
#include "modem/modem_port.h"

#include "base/paths.h"
#include "base/serial.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

ModemPort::ModemPort() : stop_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ModemPort::Stop()
{
    eventfd_write(stop_.Get(), 1);
}

bool ModemPort::Configure(int fd)
{
    // TIOCEXCL does not stop root, as whom everything runs here. The lock is for programs that ask for it.
    termios settings{};
    if (flock(fd, LOCK_EX | LOCK_NB) == -1 || tcgetattr(fd, &settings) == -1)
        return false;
    settings = KSerial::LineSettings(settings, 115200, 8, 'N', 1);
    ioctl(fd, TIOCEXCL);
    tcflush(fd, TCIOFLUSH);
    return tcsetattr(fd, TCSANOW, &settings) == 0;
}

bool ModemPort::Open()
{
    // O_NONBLOCK: an open would otherwise wait for a carrier, which only comes with a call.
    ledboard::UniqueFd fd(open(paths::kModemDevice, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    if (fd.Valid() && Configure(fd.Get())) {
        fd_ = std::move(fd);
        return true;
    }
    // The ways in which a USB device that is missing, or being pulled out, shows.
    const bool none = errno == ENOENT || errno == ENXIO || errno == ENODEV || errno == EIO;
    failure_ = none ? "no device" : std::strerror(errno);
    return false;
}

void ModemPort::Close()
{
    if (!fd_.Valid())
        return;
    ioctl(fd_.Get(), TIOCNXCL);
    tcflush(fd_.Get(), TCIOFLUSH); // close would wait for a modem that hangs to take what is still queued
    fd_.Reset();
}

ModemPort::Event ModemPort::Wait(int fd, short events, ModemClock::time_point end) const
{
    using std::chrono::milliseconds;
    for (;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - ModemClock::now()).count();
        pollfd watched[] = {{stop_.Get(), POLLIN, 0}, {fd, events, 0}};
        const int ready = poll(watched, 2, static_cast<int>(std::max<long long>(left, 0)));
        if (watched[0].revents != 0)
            return kStopped;
        if (ready > 0)
            return kBytes;
        if (ready == 0 && left <= 0)
            return kTimeout;
    }
}

ModemPort::Event ModemPort::Receive(ModemClock::time_point end, std::string *bytes)
{
    const Event event = Wait(fd_.Get(), POLLIN, end);
    if (event != kBytes)
        return event;
    char block[1024];
    const ssize_t count = read(fd_.Get(), block, sizeof block);
    if (count > 0) {
        bytes->append(block, static_cast<std::size_t>(count));
        return kBytes;
    }
    // 0 bytes of a line that was readable: it was hung up.
    return count == -1 && (errno == EAGAIN || errno == EINTR) ? kBytes : kGone;
}

ModemPort::Event ModemPort::Send(std::string_view bytes, ModemClock::time_point end)
{
    while (!bytes.empty()) {
        const ssize_t count = write(fd_.Get(), bytes.data(), bytes.size());
        if (count >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno != EAGAIN && errno != EINTR)
            return kGone;
        const Event event = Wait(fd_.Get(), POLLOUT, end);
        if (event != kBytes)
            return event;
    }
    return kBytes;
}

ModemPort::Event ModemPort::Sleep(ModemClock::duration time)
{
    return Wait(-1, 0, ModemClock::now() + time);
}

bool ModemPort::StillThere() const
{
    struct stat opened = {};
    struct stat named = {};
    return fstat(fd_.Get(), &opened) == 0 && stat(paths::kModemDevice, &named) == 0 &&
           opened.st_rdev == named.st_rdev;
}
