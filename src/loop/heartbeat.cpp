// SPDX-License-Identifier: MIT
#include "loop/heartbeat.h"

#include "base/sockets.h"
#include "base/threads.h"
#include "common/unique_fd.h"
#include "records/heartbeat_record.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <thread>

static std::atomic<int> g_heartbeat_fd{-1};
static sockaddr_in s_destination{};
static int s_flag = 0; // third argument of heartbeat_init, kept and not used

namespace
{

constexpr unsigned kReconnectPause = 2; // seconds
constexpr unsigned kBeatPause = 1;      // seconds

std::atomic<int> s_caughtSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores it");

// Only notes the signal; the thread prints it. A line printed here, to an output that broke, would raise the
// signal again for ever.
void sig_handle(int signal)
{
    s_caughtSignal = signal;
}

// The heartbeat's own sends are meant to raise SIGPIPE here and be caught; every other signal stays blocked.
void CatchBrokenPipe()
{
    struct sigaction action = {};
    action.sa_handler = sig_handle;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
    sigset_t pipeOnly;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_UNBLOCK, &pipeOnly, nullptr);
}

// The socket, or -1 (reported on standard error, errno).
int OpenSocket()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        const int error = errno;
        std::fprintf(stderr, "create one socket fail. errno: %d.\n", error);
        errno = error;
        return -1;
    }
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return fd;
}

bool IsConnected(int fd)
{
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&s_destination), sizeof s_destination);
    return result == 0 || errno == EISCONN;
}

// Tries until the supervisor answers. False when the descriptor is not open.
bool ConnectToSupervisor(int fd)
{
    while (!IsConnected(fd)) {
        if (errno == EBADF)
            return false;
        sleep(kReconnectPause);
    }
    return true;
}

// Sends beats until one fails.
void SendBeats(int fd)
{
    for (;;) {
        s_caughtSignal = 0;
        const ssize_t sent = send(fd, &wire::kHeartbeat, sizeof wire::kHeartbeat, 0);
        const int error = errno;
        if (s_caughtSignal != 0)
            std::printf("catch signal: %d\n", s_caughtSignal.load());
        if (sent == sizeof wire::kHeartbeat) {
            sleep(kBeatPause);
            continue;
        }
        if (sent == -1 && error == EINTR)
            continue;
        std::fprintf(stderr, "send heartbeat fail. errno: %d.\n", error);
        return;
    }
}

void work_thread(int fd)
{
    CatchBrokenPipe();
    ledboard::UniqueFd socket(fd);
    for (;;) {
        g_heartbeat_fd = socket.Get();
        if (!ConnectToSupervisor(socket.Get()))
            return;
        SendBeats(socket.Get());
        // A TCP socket that was connected cannot be connected again.
        socket.Reset(OpenSocket());
        while (!socket.Valid()) {
            sleep(kReconnectPause);
            socket.Reset(OpenSocket());
        }
    }
}

int heartbeat_init(const char *address, int port, int flag)
{
    if (address == nullptr || port <= 0)
        return -1;
    const int fd = OpenSocket();
    if (fd == -1)
        return -1;
    s_destination.sin_family = AF_INET;
    s_destination.sin_port = htons(static_cast<std::uint16_t>(port));
    s_destination.sin_addr.s_addr = inet_addr(address);
    s_flag = flag;
    return fd;
}

void heartbeat_start(int fd)
{
    if (fd < 0)
        return;
    const SignalsBlocked blocked;
    try {
        std::thread(work_thread, fd).detach();
    } catch (const std::system_error &error) {
        std::fprintf(stderr, "create heartbeat thread fail. errno: %d.\n", error.code().value());
        close(fd);
    }
}

} // namespace

const HeartbeatThread g_heartbeat_thread = {heartbeat_init, heartbeat_start};

void StartHeartbeat()
{
    const int fd = g_heartbeat_thread.heartbeat_init(wire::kSupervisorAddress, wire::kSupervisorPort, 0);
    if (fd == -1) {
        std::fprintf(stderr, "heart beat init fail. %s: %d.\n", std::strerror(errno), errno);
        return;
    }
    g_heartbeat_thread.heartbeat_start(fd);
}
