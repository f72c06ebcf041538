// SPDX-License-Identifier: MIT
// virtual_board/program/steering.h: commands to a running board, from its view, from the PC shell, from a
// script.
#pragma once

#include "board/virtual_board.h"
#include "common/unique_fd.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace board
{

struct Answer {
    bool ok = true;
    std::vector<std::string> lines; // for people; an error has one
    nlohmann::json json;            // the same for programs
    std::size_t from = 0;           // of a report: the number of its first line, counted from 0
};

// {"cable", "out"}, {"usb", "in", "800"}, {"kill"}, {"state"} and so on; see docs/virtual-board.md.
Answer Steer(VirtualBoard &board, const std::vector<std::string> &words);

// Answers Steer requests on a socket in the private "/run" of the PC side, where only its own processes get.
class SteeringSocket
{
public:
    explicit SteeringSocket(VirtualBoard &board);
    ~SteeringSocket();

private:
    void Serve();
    void Handle(int fd);

    struct Handler {
        std::thread thread;
        std::atomic<bool> ended = false;
    };

    VirtualBoard &board_;
    ledboard::UniqueFd listener_;
    std::atomic<bool> stop_ = false;
    std::list<Handler> handlers_; // of the serving thread
    std::thread thread_;
};

// The other end: sends `words` and gives the answer.
Answer AskRunningBoard(const std::vector<std::string> &words);

// Runs a program inside the running board, on the caller's own terminal; its exit status, or 1 with a
// message.
int RunInRunningBoard(const std::vector<std::string> &arguments);

} // namespace board
