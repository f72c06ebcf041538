// SPDX-License-Identifier: MIT
// virtual_board/program/steering_socket.h: requests to a running board from other processes of its PC side.
// The socket is in the private "/run" of the PC side, which nobody else can reach. A request is one packet, a
// JSON array of words; the answer is a JSON object in as many packets as it needs, and then the end.
#pragma once

#include "common/unique_fd.h"
#include "program/steering.h"

#include <atomic>
#include <list>
#include <thread>

namespace board
{

// Answers every request with what Steer says, each on a thread of its own.
class SteeringSocket
{
public:
    explicit SteeringSocket(VirtualBoard &board); // throws std::system_error
    ~SteeringSocket();
    SteeringSocket(const SteeringSocket &) = delete;
    SteeringSocket &operator=(const SteeringSocket &) = delete;

private:
    struct Handler {
        std::thread thread;
        std::atomic<bool> ended = false;
    };

    void Serve();
    void Handle(int fd);
    void JoinEnded();

    VirtualBoard &board_;
    ledboard::UniqueFd listener_;
    std::atomic<bool> stop_ = false;
    std::list<Handler> handlers_; // of the serving thread
    std::thread thread_;
};

// The other end: sends `words` and returns the answer.
Answer AskRunningBoard(const std::vector<std::string> &words);

} // namespace board
