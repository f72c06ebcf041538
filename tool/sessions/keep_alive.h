// SPDX-License-Identifier: MIT
// tool/sessions/keep_alive.h: keeps a session with a board open.
//
// A board closes a session 42 seconds after it last heard a search from the address at its other end, however
// busy the session is. So a thread sends one every 10 seconds, from that same address.
#pragma once

#include "common/unique_fd.h"
#include "discovery/board.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ledboard
{

constexpr std::chrono::milliseconds kKeepAlivePeriod{10'000};

class KeepAlive
{
public:
    // The first search goes out at once, the last before the destructor returns. `local` is the session's own
    // address, `board` where the board takes searches, `interfaceName` as for the session. Throws VerbError.
    KeepAlive(in_addr local, const Endpoint &board, const std::string &interfaceName,
              std::chrono::milliseconds period = kKeepAlivePeriod);

private:
    void Run(const std::stop_token &stop);
    void SendSearch();

    UniqueFd fd_;
    std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::jthread thread_; // last: stops before the rest goes
};

} // namespace ledboard
