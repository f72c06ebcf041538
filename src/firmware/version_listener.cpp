// SPDX-License-Identifier: MIT
// The firmware service's own listener, which start-up does not start.
#include "base/diag.h"
#include "base/threads.h"
#include "common/unique_fd.h"
#include "firmware/version_thread.h"
#include "records/firmware_records.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <thread>

namespace
{

constexpr int kListenerBufferSize = 1124; // the longest packet that the listener accepts
constexpr unsigned kPauseAfterError = 1;  // seconds

bool SetListenerOptions(int fd)
{
    const int on = 1;
    const linger atOnce{.l_onoff = 1, .l_linger = 0}; // close resets the connection and frees the port
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0)
        return true;
    std::printf("version thread: set socket option fail.errno: %d.\n", errno);
    return false;
}

bool BindAndListen(int fd, int address, int port)
{
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = static_cast<in_addr_t>(address);
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) == -1) {
        std::printf("version thread: bind sockt to %d fail\n. errno: %d", port, errno);
        return false;
    }
    if (listen(fd, 1) == -1) {
        std::printf("version thread: listen sockt fail\n. errno: %d", errno);
        return false;
    }
    return true;
}

// The length of the packet that begins with `held`, 0 if its length has not come yet, -1 if it is invalid.
int AnnouncedLength(wire::Bytes held)
{
    const auto magic = wire::Read<wire::U32>(held);
    const auto length = wire::Read<wire::U32>(held, sizeof(wire::U32));
    if (!magic || !length)
        return 0;
    if (*magic != wire::kFirmwareMagic || *length < sizeof(wire::FirmwareHeader) ||
        *length > static_cast<std::uint32_t>(kListenerBufferSize))
        return -1;
    return static_cast<int>(*length);
}

} // namespace

void KVersionThread::SetAddress(int listenAddress, int listenPort)
{
    oldSocket = listenAddress == address ? -1 : listenSocket.load();
    address = listenAddress;
    port = listenPort;
}

int KVersionThread::Init()
{
    if (initialised && oldSocket == -1)
        return 1;
    initialised = false;
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        std::printf("version thread: open socket fail. errno: %d.\n", errno);
        return 0;
    }
    if (!SetListenerOptions(fd.Get()) || !BindAndListen(fd.Get(), address, port))
        return 0;
    listenSocket = fd.Release();
    std::printf("version thread init success.\n");
    if (oldSocket != -1)
        shutdown(oldSocket, SHUT_RDWR); // wakes the accept loop, which closes it
    oldSocket = -1;
    initialised = true;
    return 1;
}

void KVersionThread::Start()
{
    if (listenSocket < 0) {
        std::printf("version thread: init fail and this thread exit.\n");
        return;
    }
    const SignalsBlocked blocked;
    try {
        std::thread([this] { AcceptLoop(); }).detach();
        std::printf("version thread begin run.\n");
    } catch (const std::system_error &error) {
        std::printf("create version thread fail. errno: %d.\n", error.code().value());
    }
}

void KVersionThread::AcceptLoop()
{
    for (int listener = listenSocket; listener >= 0; listener = listenSocket) {
        const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        const int error = errno;
        if (client == -1 && error == EINVAL) {
            close(listener); // it was shut down: another one replaces it, or an upgrade has begun
            if (listener == listenSocket)
                return;
            continue;
        }
        if (client == -1) {
            sleep(kPauseAfterError);
            continue;
        }
        std::printf("version thread accept one client.\n");
        close(listener); // no second client while this one is served; Init opens it again
        listenSocket = -1;
        WorkThread(client);
        std::printf("one version thread exit.\n");
        initialised = false;
        if (Init() == 0)
            return;
    }
}

void KVersionThread::WorkThread(int client)
{
    std::printf("version thread begin start.\n");
    clientSocket = client;
    char packet[kListenerBufferSize];
    for (;;) {
        const int length = Read(packet, kListenerBufferSize);
        if (length == -1) {
            std::printf("version thread: read fail. errno: %d.\n", errno);
            break;
        }
        if (DisposePaket(packet, length) == 0) {
            std::printf("version thread: dispose fail. errno: %d.\n", errno);
            break;
        }
    }
    shutdown(client, SHUT_RDWR);
    close(client);
    file.reset();
    clientSocket = -1;
}

int KVersionThread::Read(char *packet, int size) const
{
    const auto room = static_cast<std::size_t>(size);
    std::size_t held = 0;
    for (;;) {
        const int length = AnnouncedLength(wire::BytesAt(packet, held));
        // QUIRK listener-one-packet: bytes after the announced length end the connection; they would be
        // expected to start the next packet.
        if (length == -1 || length > size || (length > 0 && held > static_cast<std::size_t>(length)))
            return -1;
        if (length > 0 && held == static_cast<std::size_t>(length))
            return length;
        const ssize_t count = recv(clientSocket, packet + held, room - held, 0);
        if (count == -1 && errno == EINTR)
            continue;
        if (count < 1)
            return count == 0 && held >= sizeof(wire::FirmwareHeader) ? static_cast<int>(held) : -1;
        held += static_cast<std::size_t>(count);
    }
}
