// SPDX-License-Identifier: MIT
#include "sessions/keep_alive.h"

#include "common/pc/verb_error.h"
#include "sessions/session_client.h"

#include <sys/socket.h>

#include <cerrno>

namespace ledboard
{

KeepAlive::KeepAlive(in_addr local, const Endpoint &board, const std::string &interfaceName,
                     std::chrono::milliseconds period)
    : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)), period_(period)
{
    const sockaddr_in from = SocketAddress({local, 0});
    const sockaddr_in to = SocketAddress(board);
    UseInterface(fd_.Get(), interfaceName);
    if (fd_.Get() < 0 || bind(fd_.Get(), reinterpret_cast<const sockaddr *>(&from), sizeof from) != 0 ||
        connect(fd_.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        throw SystemError("cannot keep the session alive", errno);
    thread_ = std::jthread([this](const std::stop_token &stop) { Run(stop); });
}

void KeepAlive::Run(const std::stop_token &stop)
{
    std::unique_lock lock(mutex_);
    while (!stop.stop_requested()) {
        SendSearch();
        wake_.wait_for(lock, stop, period_, [] { return false; });
    }
}

// A lost search is not repeated, the next one follows. Answers are received and dropped.
void KeepAlive::SendSearch()
{
    const wire::SearchRequest search = MakeSearch(0);
    send(fd_.Get(), &search, sizeof search, 0);
    std::byte answer[sizeof(wire::SearchReply)];
    while (recv(fd_.Get(), answer, sizeof answer, 0) > 0) {
    }
}

} // namespace ledboard
