// SPDX-License-Identifier: MIT
// Port 8879: one client at a time, refused by a closed port while one is served.
#include "base/diag.h"
#include "common/unique_fd.h"
#include "settings/serial_thread.h"
#include "settings/setting_lock.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace
{

constexpr unsigned long kRetryPause = 1; // seconds
constexpr int kWaitForData = 1000;       // milliseconds
constexpr int kGoneLine = 946;
constexpr int kCutLine = 988;

void SetOption(int fd, int level, int option, int value)
{
    setsockopt(fd, level, option, &value, sizeof value);
}

void SetLinger(int fd, bool on)
{
    const linger value{.l_onoff = on ? 1 : 0, .l_linger = 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value);
}

// A cable that was pulled must not keep the port closed until the next boot.
void SetKeepAlive(int fd)
{
    constexpr int kIdle = 30;     // seconds
    constexpr int kInterval = 10; // seconds
    constexpr int kProbes = 3;
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, kIdle);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, kInterval);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    // No probe is sent while an answer is not acknowledged.
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, (kIdle + kProbes * kInterval) * 1000);
}

bool NothingYet(ssize_t received)
{
    return received == -1 && (errno == EAGAIN || errno == EINTR);
}

} // namespace

ledboard::UniqueFd KSerialThread::OpenListener() const
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        std::printf("open socket fail. errno: %d.\n", errno);
        return fd;
    }
    SetOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = address;
    local.sin_port = htons(port);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == -1) {
        std::printf("tcp socket bind in 8879 fail. errno: %d.\n", errno);
        return {};
    }
    SetLinger(fd.Get(), true);
    if (listen(fd.Get(), 1) == -1) {
        std::printf("tcp socket listen in 8879 fail. errno: %d.\n", errno);
        return {};
    }
    return fd;
}

bool KSerialThread::SocketInit()
{
    if (initialised_ && oldListenFd <= 0)
        return true;
    oldListenFd = listenFd;
    initialised_ = false;
    ledboard::UniqueFd fd = OpenListener();
    if (!fd.Valid())
        return false;
    listenFd = fd.Release();
    std::printf("socket listenning in %d port success.\n", port);
    if (oldListenFd > 0) {
        shutdown(oldListenFd, SHUT_RDWR);
        close(oldListenFd);
        oldListenFd = -1;
    }
    initialised_ = true;
    return true;
}

void KSerialThread::run()
{
    for (;;) {
        if (SocketInit())
            Accept();
        sleep(kRetryPause);
    }
}

void KSerialThread::Accept()
{
    while (listenFd >= 0) {
        std::printf("serial thread socket: wait accept one client.\n");
        ledboard::UniqueFd client(accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.Valid()) {
            std::printf("accept one error socket and be continue;\n");
            // Without descriptors the client stays in the queue, and accept would fail at once again.
            if (errno != ECONNABORTED)
                sleep(kRetryPause);
            continue;
        }
        if (!PrepareClient(client.Get()))
            continue;
        clientServed_ = true;
        CloseListener();
        WorkThread(client.Get());
        shutdown(client.Get(), SHUT_RDWR);
        client.Reset();
        clientServed_ = false;
        CloseTransfers(this);
        ClientLeft();
        if (!SocketInit())
            return;
    }
    std::printf("socket is invalid.\n");
}

bool KSerialThread::PrepareClient(int fd)
{
    std::printf("%s: accept one client.\n", "Accept");
    const int flags = fcntl(fd, F_GETFL);
    std::printf("opt: %d.\n", flags);
    if (flags == -1) {
        std::printf("get socket fd flag fail.\n");
        return false;
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
        std::printf("set socket fd flag fail.\n");
        return false;
    }
    SetLinger(fd, false);
    SetKeepAlive(fd);
    return true;
}

void KSerialThread::CloseListener()
{
    errno = 0;
    shutdown(listenFd, SHUT_RDWR);
    std::printf("close listenning socket: %d, errno: %d\n", listenFd, errno);
    close(listenFd);
    listenFd = -1;
    initialised_ = false;
    const SettingLock lock;
    debugFlag = false;
}

void KSerialThread::WorkThread(int fd)
{
    std::printf("\n----------new one thread be recv.-------------\n");
    while (Read(fd) >= 1) {
        if (DisposePacket(fd) == 0)
            return;
    }
}

bool KSerialThread::WaitForData(int fd)
{
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&wait, 1, kWaitForData) == 1)
        return true;
    std::printf("select continue.\n");
    PaintSlantTimeOut();
    return false;
}

int KSerialThread::Read(int fd)
{
    received_.fill(std::byte{0});
    ssize_t count = recv(fd, received_.data(), 1, 0);
    while (NothingYet(count)) {
        if (WaitForData(fd))
            count = recv(fd, received_.data(), 1, 0);
    }
    if (count == 1)
        return ReadBody(fd, std::to_integer<std::size_t>(received_[0]));
    shutdown(fd, SHUT_RDWR);
    std::printf("readeds: %d. %d, %d\n", 0, static_cast<int>(count), kGoneLine);
    WriteCloseSmartSetting();
    return -1;
}

int KSerialThread::ReadBody(int fd, std::size_t length)
{
    std::size_t held = 0;
    while (held < length) {
        const ssize_t count = recv(fd, received_.data() + 1 + held, length - held, 0);
        if (count > 0)
            held += static_cast<std::size_t>(count);
        else if (!NothingYet(count))
            break;
        else
            WaitForData(fd);
    }
    if (held == length)
        return static_cast<int>(length);
    // QUIRK cut-short: a client that vanishes before the second byte behind the length leaves the smart
    // setting on; the frame that ends it would be expected whenever a client vanishes.
    if (held < 2) {
        std::printf("exit.\n");
        return -1;
    }
    std::printf("%d, error!\n", kCutLine);
    WriteCloseSmartSetting();
    return -1;
}
