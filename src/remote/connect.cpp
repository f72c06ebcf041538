// SPDX-License-Identifier: MIT
#include "remote/connect.h"

#include "base/diag.h"
#include "base/sockets.h"
#include "base/threads.h"
#include "common/text_field.h"
#include "common/unique_fd.h"
#include "records/remote_records.h"
#include "remote/client.h"
#include "remote/config.h"
#include "remote/device_context.h"
#include "state/device_record.h"
#include "state/tick.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <optional>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kUnit[] = "src/device_context.cpp";
constexpr seconds kRetryPause(6);
constexpr seconds kQuickPace(1); // between connects to a server that accepts boards
constexpr seconds kSlowPace(6);  // to one that does not
constexpr milliseconds kLookUpPause(500);
constexpr milliseconds kConnectPoll(200);
constexpr unsigned kUserTimeout = 60'000; // ms until unacknowledged data ends the connection

// All guarded by RemoteMutex(); s_changed is notified whenever one of them changes. It is never destroyed:
// the end of the process would wait for the threads that wait on it.
std::condition_variable &s_changed = *new std::condition_variable;
unsigned s_newest = 0; // the thread that may log in
int s_threads = 0;     // that have not ended
bool s_loginUnderWay = false;
bool s_monitorIsKnown = false;
bool s_quickPace = true;
std::optional<Clock::time_point> s_lastConnect;

struct ThreadArgument {
    DeviceContext *context;
    unsigned number;
};

bool IsNewest(unsigned number)
{
    const std::lock_guard lock(RemoteMutex());
    return number == s_newest;
}

// Waits until `moment`. False, and at once, when a newer thread makes this one needless.
bool SleepUntil(unsigned number, Clock::time_point moment)
{
    std::unique_lock lock(RemoteMutex());
    return !s_changed.wait_until(lock, moment, [number] { return number != s_newest; });
}

bool KeepPace(unsigned number)
{
    Clock::time_point moment = Clock::now();
    {
        const std::lock_guard lock(RemoteMutex());
        if (s_lastConnect)
            moment = *s_lastConnect + (s_quickPace ? kQuickPace : kSlowPace);
    }
    return SleepUntil(number, moment);
}

// The first IPv4 address of a name; asks until the look-up works. Nothing when the thread is to end.
std::optional<in_addr> LookUp(unsigned number, const std::string &name)
{
    addrinfo *list = nullptr;
    while (getaddrinfo(name.c_str(), nullptr, nullptr, &list) != 0) {
        if (!SleepUntil(number, Clock::now() + kLookUpPause))
            return std::nullopt;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
    for (; list != nullptr; list = list->ai_next) {
        if (list->ai_family != AF_INET)
            continue;
        sockaddr_in address;
        std::memcpy(&address, list->ai_addr, sizeof address);
        return address.sin_addr;
    }
    DiagErrno(kUnit, "ConnectThread", __LINE__, "getaddrinfo fail: ");
    return std::nullopt;
}

std::optional<sockaddr_in> ServerAddress(unsigned number, DeviceContext *context)
{
    const wire::AddrParam server = context->GetAddrParam(context);
    const std::string text(ledboard::FieldText(server.addr));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(server.port));
    if (server.domainFlag != 1) {
        address.sin_addr.s_addr = inet_addr(text.c_str());
        return address;
    }
    const std::optional<in_addr> found = LookUp(number, text);
    if (!found)
        return std::nullopt;
    address.sin_addr = *found;
    return address;
}

// Connects a non-blocking socket. False when the server is not reached or the thread is to end.
bool TryConnect(unsigned number, int fd, const sockaddr_in &address)
{
    for (;;) {
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
            errno == EISCONN)
            return true;
        if (errno != EINPROGRESS && errno != EALREADY)
            return false;
        pollfd waiting{.fd = fd, .events = POLLOUT, .revents = 0};
        poll(&waiting, 1, static_cast<int>(kConnectPoll.count()));
        if (!IsNewest(number))
            return false;
    }
}

// Retries on the same socket until the server is reached. False when the thread is to end.
bool ConnectSocket(unsigned number, DeviceContext *context, int fd)
{
    for (;;) {
        if (!KeepPace(number))
            return false;
        const std::optional<sockaddr_in> address = ServerAddress(number, context);
        if (!address || !IsNewest(number))
            return false;
        if (TryConnect(number, fd, *address))
            return true;
        if (!SleepUntil(number, Clock::now() + kRetryPause))
            return false;
    }
}

void PrepareSocket(int fd)
{
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    SetSessionSendLimit(fd);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeout, sizeof kUserTimeout);
}

// Waits for an older thread that is logging in. False when this one is to end.
bool BeginLogin(unsigned number)
{
    std::unique_lock lock(RemoteMutex());
    s_changed.wait(lock, [number] { return !s_loginUnderWay || number != s_newest; });
    if (number != s_newest)
        return false;
    s_loginUnderWay = true;
    s_quickPace = false; // until the server accepts the login
    s_lastConnect = Clock::now();
    return true;
}

bool SendLogin(DeviceContext *context, int fd)
{
    if (SendBytes(fd, wire::BytesOf(wire::kRemoteGreeting)) != sizeof wire::kRemoteGreeting)
        return false;
    wire::RemoteLoginPacket login{};
    login.prefix = {.length = sizeof login, .command = wire::kRemoteLogin};
    std::memcpy(login.username, context->GetAddrParam(context).username, sizeof login.username);
    std::memcpy(login.id, g_device.Copy().id, sizeof login.id);
    return SendBytes(fd, wire::BytesOf(login)) == sizeof login;
}

// Gives the socket to the work loop, once that has said where; leaves it when there is no place for it.
void HandOver(unsigned number, DeviceContext *context, ledboard::UniqueFd &socket)
{
    std::unique_lock lock(RemoteMutex());
    s_changed.wait(lock, [number] { return s_monitorIsKnown || number != s_newest; });
    if (number != s_newest)
        return;
    if (context->monitor != nullptr) {
        context->privateFD = socket.Release();
        context->monitor->fd = context->privateFD;
        context->monitor->valid = 1;
    }
    lock.unlock();
    Diag(kUnit, "ConnectThread", __LINE__, "login server success!");
}

void EndLogin()
{
    const std::lock_guard lock(RemoteMutex());
    s_loginUnderWay = false;
    s_changed.notify_all();
}

void Run(unsigned number, DeviceContext *context)
{
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.Valid()) {
        DiagErrno(kUnit, "ConnectThread", __LINE__, "create socket fail: ");
        return;
    }
    if (!IsNewest(number))
        return;
    RemoveFromTick(context->Heartbeat);
    if (!ConnectSocket(number, context, fd.Get()) || !BeginLogin(number))
        return;
    Diag(kUnit, "ConnectThread", __LINE__, "connect to remote server is success.");
    PrepareSocket(fd.Get());
    if (SendLogin(context, fd.Get()))
        HandOver(number, context, fd);
    fd.Reset(); // what was not taken, before another thread may log in
    EndLogin();
}

void *ConnectThread(void *data)
{
    const std::unique_ptr<ThreadArgument> argument(static_cast<ThreadArgument *>(data));
    Run(argument->number, argument->context);
    const std::lock_guard lock(RemoteMutex());
    --s_threads;
    s_changed.notify_all();
    return nullptr;
}

unsigned AnnounceThread()
{
    const std::lock_guard lock(RemoteMutex());
    EndConnectThreads();
    ++s_threads;
    return s_newest;
}

} // namespace

std::mutex &RemoteMutex()
{
    static std::mutex s_fd_mutex;
    return s_fd_mutex;
}

void StartConnectThread(DeviceContext *context)
{
    auto argument = std::make_unique<ThreadArgument>(ThreadArgument{context, AnnounceThread()});
    const SignalsBlocked blocked;
    pthread_t thread;
    errno = pthread_create(&thread, nullptr, ConnectThread, argument.get());
    if (errno != 0) {
        DiagErrno(kUnit, "ConnectToServer", __LINE__, "pthread create ConnectThread fail: ");
        const std::lock_guard lock(RemoteMutex());
        --s_threads;
        return;
    }
    argument.release();
    Diag(kUnit, "ConnectToServer", __LINE__, "create ConnectThread Success.");
    errno = pthread_detach(thread);
    if (errno != 0)
        DiagErrno(kUnit, "ConnectToServer", __LINE__, "pthread detach tid fail: ");
}

void EndConnectThreads()
{
    ++s_newest;
    s_changed.notify_all();
}

void WaitForConnectThreads()
{
    std::unique_lock lock(RemoteMutex());
    s_changed.wait(lock, [] { return s_threads == 0; });
}

void SetConnectPace(bool quick)
{
    s_quickPace = quick;
}

void MonitorIsKnown()
{
    s_monitorIsKnown = true;
    s_changed.notify_all();
}
