// SPDX-License-Identifier: MIT
#include "settings/setting_port.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>

namespace
{

constexpr std::chrono::seconds kRetryPause{1};
constexpr int kWaitForData = 1000; // milliseconds
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

// Only one client is served: without probes, one whose cable was pulled would keep the port closed until the
// next boot.
void SetKeepAlive(int fd)
{
    constexpr int kIdle = 30;     // seconds
    constexpr int kInterval = 10; // seconds
    constexpr int kProbes = 3;
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, kIdle);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, kInterval);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    // The kernel sends no probes while sent bytes wait for their acknowledgement; this limits that wait.
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, (kIdle + kProbes * kInterval) * 1000);
}

bool NothingYet(ssize_t received)
{
    return received == -1 && (errno == EAGAIN || errno == EINTR);
}

ledboard::UniqueFd OpenListener()
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        std::printf("open socket fail. errno: %d.\n", errno);
        return fd;
    }
    SetOption(fd.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(wire::kSettingPort);
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

bool PrepareClient(int fd)
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

} // namespace

bool SettingPort::SocketInit()
{
    if (listenFd.Valid())
        return true;
    listenFd = OpenListener();
    if (!listenFd.Valid())
        return false;
    std::printf("socket listenning in %d port success.\n", wire::kSettingPort);
    return true;
}

void SettingPort::Run()
{
    for (;;) {
        if (SocketInit())
            Accept();
        std::this_thread::sleep_for(kRetryPause);
    }
}

void SettingPort::Accept()
{
    while (listenFd.Valid()) {
        std::printf("serial thread socket: wait accept one client.\n");
        ledboard::UniqueFd client(accept4(listenFd.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!client.Valid()) {
            const int error = errno;
            std::printf("accept one error socket and be continue;\n");
            // Without descriptors the client stays in the queue, and accept would fail at once again.
            if (error != ECONNABORTED)
                std::this_thread::sleep_for(kRetryPause);
            continue;
        }
        if (!PrepareClient(client.Get()))
            continue;
        clientServed_ = true;
        CloseListener();
        service_->ClientCame();
        WorkThread(client.Get());
        shutdown(client.Get(), SHUT_RDWR);
        client.Reset();
        clientServed_ = false;
        service_->ClientLeft();
        if (!SocketInit())
            return;
    }
    std::printf("socket is invalid.\n");
}

void SettingPort::CloseListener()
{
    errno = 0;
    shutdown(listenFd.Get(), SHUT_RDWR);
    std::printf("close listenning socket: %d, errno: %d\n", listenFd.Get(), errno);
    listenFd.Reset();
}

void SettingPort::WorkThread(int fd)
{
    std::printf("\n----------new one thread be recv.-------------\n");
    for (int length = Read(fd); length >= 1; length = Read(fd)) {
        const auto size = static_cast<std::size_t>(length) + 1;
        if (service_->DisposePacket(fd, wire::Bytes(received_).first(size)) == 0)
            return;
    }
}

bool SettingPort::WaitForData(int fd)
{
    pollfd wait{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&wait, 1, kWaitForData) == 1)
        return true;
    std::printf("select continue.\n");
    service_->ClientSilent();
    return false;
}

int SettingPort::Read(int fd)
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
    service_->ClientVanished();
    return -1;
}

int SettingPort::ReadBody(int fd, std::size_t length)
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
    // QUIRK cut-short: a client that vanishes before the second byte after the length leaves the smart
    // setting on; the frame that ends it would be expected whenever a client vanishes.
    if (held < 2) {
        std::printf("exit.\n");
        return -1;
    }
    std::printf("%d, error!\n", kCutLine);
    service_->ClientVanished();
    return -1;
}
