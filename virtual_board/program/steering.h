// SPDX-License-Identifier: MIT
// virtual_board/program/steering.h: what a running board can be asked and ordered to do, from its view, from
// the PC shell, from a script.
#pragma once

#include "board/virtual_board.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace board
{

struct Answer {
    bool ok = true;
    std::vector<std::string> lines; // for people; an error has one
    nlohmann::json json;            // the same for programs
    std::size_t from = 0;           // of a report: the number of its first line, counted from 0

    static Answer Failure(const std::string &text) { return {false, {text}, {{"error", text}}, 0}; }
    static Answer Done(const std::string &text) { return {true, {text}, {{"done", text}}, 0}; }
};

// {"cable", "out"}, {"usb", "in", "800"}, {"kill"}, {"state"} and so on; see docs/virtual-board.md.
Answer Steer(VirtualBoard &board, const std::vector<std::string> &words);

} // namespace board
