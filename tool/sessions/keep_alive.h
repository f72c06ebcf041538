// SPDX-License-Identifier: MIT
// tool/sessions/keep_alive.h: keeps a session with a board open.
//
// A board closes a session 42 seconds after the last search from the address at its other end, even if the
// session is busy. So a thread sends a search from that address every 10 seconds.
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
    // Sends the first search at once and none after the destructor returns. `local` is the session's own
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
    std::jthread thread_; // last, so that it ends before the other members do
};

} // namespace ledboard
