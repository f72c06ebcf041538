// SPDX-License-Identifier: MIT
#include "remote/connect.h"

#include "base/diag.h"
#include "base/sockets.h"
#include "base/threads.h"
#include "common/text_field.h"
#include "common/unique_fd.h"
#include "records/remote_records.h"
#include "remote/connection.h"
#include "state/device_record.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>

namespace
{

using std::chrono::milliseconds;

constexpr char kUnit[] = "src/device_context.cpp";
constexpr milliseconds kLookUpPause(500);
constexpr milliseconds kConnectPoll(200); // how late a thread may notice that a newer one was started
constexpr unsigned kUserTimeout = 60'000; // ms until unacknowledged data ends the connection

using Turn = RemoteConnection::Turn;

std::optional<in_addr> FirstIpv4(const addrinfo *list)
{
    for (; list != nullptr; list = list->ai_next) {
        if (list->ai_family != AF_INET)
            continue;
        sockaddr_in address;
        std::memcpy(&address, list->ai_addr, sizeof address);
        return address.sin_addr;
    }
    return std::nullopt;
}

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// The first IPv4 address of a name; retries until the look-up yields one. Nothing if the result is empty
// (logged) or the thread is to end.
std::optional<in_addr> LookUp(Turn *turn, const std::string &name)
{
    for (;;) {
        if (!turn->BeginLookUp())
            return std::nullopt;
        addrinfo *list = nullptr;
        const int result = getaddrinfo(name.c_str(), nullptr, nullptr, &list);
        const AddressList owner(result == 0 ? list : nullptr, freeaddrinfo);
        if (!turn->EndLookUp())
            return std::nullopt;
        if (result == 0 && list == nullptr) {
            DiagErrno(kUnit, "ConnectThread", __LINE__, "getaddrinfo fail: ");
            return std::nullopt;
        }
        // A list of IPv6 addresses only: the query for the others may have failed, and the next one may not.
        if (const std::optional<in_addr> found = FirstIpv4(owner.get()))
            return found;
        if (!turn->SleepFor(kLookUpPause))
            return std::nullopt;
    }
}

std::optional<sockaddr_in> ServerAddress(Turn *turn)
{
    const wire::AddrParam server = turn->Connection().Address();
    const std::string text(ledboard::FieldText(server.addr));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(server.port));
    if (server.domainFlag != 1) {
        address.sin_addr.s_addr = inet_addr(text.c_str());
        return address;
    }
    const std::optional<in_addr> found = LookUp(turn, text);
    if (!found)
        return std::nullopt;
    address.sin_addr = *found;
    return address;
}

// Connects a non-blocking socket, so that the thread can end meanwhile. False if the server is not reached or
// the thread is to end.
bool TryConnect(const Turn &turn, int fd, const sockaddr_in &address)
{
    for (;;) {
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
            errno == EISCONN)
            return true;
        if (errno != EINPROGRESS && errno != EALREADY)
            return false;
        pollfd waiting{.fd = fd, .events = POLLOUT, .revents = 0};
        poll(&waiting, 1, static_cast<int>(kConnectPoll.count()));
        if (!turn.IsNewest())
            return false;
    }
}

// Retries on the same socket until the server is reached. False if the thread is to end.
bool ConnectSocket(Turn *turn, int fd)
{
    for (;;) {
        if (!turn->KeepPace())
            return false;
        const std::optional<sockaddr_in> address = ServerAddress(turn);
        if (!address || !turn->IsNewest())
            return false;
        if (TryConnect(*turn, fd, *address))
            return true;
        if (!turn->SleepFor(RemoteConnection::kRetryPause))
            return false;
    }
}

void PrepareSocket(int fd)
{
    // The work loop sends with a time limit, which only a blocking socket has.
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    SetSessionSendLimit(fd);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &kUserTimeout, sizeof kUserTimeout);
}

bool SendLogin(const RemoteConnection &connection, int fd)
{
    if (SendBytes(fd, wire::BytesOf(wire::kRemoteGreeting)) != sizeof wire::kRemoteGreeting)
        return false;
    wire::RemoteLoginPacket login{};
    login.prefix = {.length = sizeof login, .command = wire::kRemoteLogin};
    std::memcpy(login.username, connection.Address().username, sizeof login.username);
    std::memcpy(login.id, g_device.Copy().id, sizeof login.id);
    return SendBytes(fd, wire::BytesOf(login)) == sizeof login;
}

void Run(Turn *turn)
{
    if (!turn->Begin())
        return;
    ledboard::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.Valid()) {
        DiagErrno(kUnit, "ConnectThread", __LINE__, "create socket fail: ");
        turn->RetryLater();
        return;
    }
    if (!turn->IsNewest())
        return;
    turn->Connection().StopHeartbeat();
    if (!ConnectSocket(turn, fd.Get()) || !turn->BeginLogin())
        return;
    Diag(kUnit, "ConnectThread", __LINE__, "connect to remote server is success.");
    PrepareSocket(fd.Get());
    if (!SendLogin(turn->Connection(), fd.Get())) {
        turn->RetryLater();
        return;
    }
    if (turn->HandOver(&fd))
        Diag(kUnit, "ConnectThread", __LINE__, "login server success!");
}

void *ConnectThread(void *data)
{
    const std::unique_ptr<Turn> turn(static_cast<Turn *>(data));
    Run(turn.get()); // closes a socket that was not handed over before the next turn may begin
    return nullptr;
}

} // namespace

void StartConnectThread(RemoteConnection *connection)
{
    auto turn = std::make_unique<Turn>(connection);
    const SignalsBlocked blocked;
    pthread_t thread;
    errno = pthread_create(&thread, nullptr, ConnectThread, turn.get());
    if (errno != 0) {
        DiagErrno(kUnit, "ConnectToServer", __LINE__, "pthread create ConnectThread fail: ");
        turn->RetryLater();
        return;
    }
    turn.release(); // the thread owns it now
    Diag(kUnit, "ConnectToServer", __LINE__, "create ConnectThread Success.");
    errno = pthread_detach(thread);
    if (errno != 0)
        DiagErrno(kUnit, "ConnectToServer", __LINE__, "pthread detach tid fail: ");
}
