// SPDX-License-Identifier: MIT
#include "sessions/session_client.h"

#include "common/pc/verb_error.h"

#include <fmt/format.h>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace ledboard
{

Endpoint SessionEndpoint(const Board &board)
{
    const bool custom = board.source.port != wire::kDiscoveryPort;
    return {BoardAddress(board), custom ? board.source.port : wire::kSessionPort};
}

void UseInterface(int socket, const std::string &interfaceName)
{
    if (!interfaceName.empty() && setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                                             static_cast<socklen_t>(interfaceName.size())) != 0)
        throw SystemError("cannot use the interface " + interfaceName, errno);
}

SessionClient::SessionClient(const Endpoint &board, const std::string &interfaceName,
                             std::chrono::milliseconds patience)
    : peer_(board), patience_(patience), fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
    if (fd_.Get() < 0)
        throw SystemError("cannot open a socket", errno);
    UseInterface(fd_.Get(), interfaceName);
    const int on = 1;
    // A request is small and waits for its answer, so it must not wait for more data.
    setsockopt(fd_.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    Connect();
}

void SessionClient::Connect()
{
    const std::string failure = "cannot connect to " + FormatEndpoint(peer_);
    const sockaddr_in address = SocketAddress(peer_);
    if (connect(fd_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return;
    // The socket does not block, so that a deadline and Ctrl-C can end the connect.
    if (errno != EINPROGRESS)
        throw SystemError(failure, errno);
    if (!WaitFor(fd_.Get(), POLLOUT, Clock::now() + patience_))
        throw VerbError(ExitStatus::kTimeout, failure + ": no answer");
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(fd_.Get(), SOL_SOCKET, SO_ERROR, &error, &size);
    const bool refused = error == ECONNREFUSED || error == ECONNRESET; // reset: the board closes its listener
    if (error != 0)
        throw VerbError(refused ? ExitStatus::kRefused : ExitStatus::kFailed,
                        SystemError(failure, error).what());
}

void SessionClient::LogIn(wire::SessionType service)
{
    wire::LoginPacket login;
    login.length = static_cast<std::uint32_t>(sizeof login);
    login.subType = static_cast<std::uint32_t>(service);
    Send(wire::BytesOf(login));
    std::byte bytes[sizeof(wire::LoginReply)];
    ReceiveExactly(bytes);
    const auto reply = wire::Read<wire::LoginReply>(bytes);
    if (!reply || reply->length != sizeof(wire::LoginReply))
        throw VerbError(ExitStatus::kFailed, "the board's answer to the login is invalid");
    switch (reply->status) {
    case wire::kLoginAccepted:
    // The modem service accepts with a status of its own.
    case wire::kLoginModem:
        return;
    case wire::kLoginRefused:
        throw VerbError(ExitStatus::kRefused, "the board has as many sessions open as it allows");
    case wire::kLoginUpgrading:
        throw VerbError(ExitStatus::kRefused, "the board is in the middle of a firmware upgrade");
    default:
        throw VerbError(ExitStatus::kRefused,
                        fmt::format("the board refuses the login with status {}", reply->status));
    }
}

void SessionClient::Send(wire::Bytes bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(fd_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent > 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
            continue;
        }
        if (sent < 0 && errno != EAGAIN && errno != EINTR)
            throw SystemError("the connection to the board broke", errno);
        if (!WaitFor(fd_.Get(), POLLOUT, Clock::now() + patience_))
            throw VerbError(ExitStatus::kTimeout, "the board takes no more data");
    }
}

std::size_t SessionClient::ReceiveSome(wire::MutableBytes bytes)
{
    for (;;) {
        if (!WaitFor(fd_.Get(), POLLIN, Clock::now() + patience_))
            throw VerbError(ExitStatus::kTimeout, "the board does not answer");
        const ssize_t received = recv(fd_.Get(), bytes.data(), bytes.size(), 0);
        if (received >= 0)
            return static_cast<std::size_t>(received);
        if (errno != EAGAIN && errno != EINTR)
            throw SystemError("the connection to the board broke", errno);
    }
}

void SessionClient::ReceiveExactly(wire::MutableBytes bytes)
{
    while (!bytes.empty()) {
        const std::size_t received = ReceiveSome(bytes);
        if (received == 0)
            throw VerbError(ExitStatus::kFailed, "the board closed the session");
        bytes = bytes.subspan(received);
    }
}

std::vector<std::byte> SessionClient::ReceiveRest()
{
    std::vector<std::byte> rest;
    std::byte block[16384];
    while (const std::size_t received = ReceiveSome(block))
        rest.insert(rest.end(), block, block + received);
    return rest;
}

in_addr SessionClient::LocalAddress() const
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    if (getsockname(fd_.Get(), reinterpret_cast<sockaddr *>(&address), &size) != 0)
        throw SystemError("the session has no address", errno);
    return address.sin_addr;
}

} // namespace ledboard
