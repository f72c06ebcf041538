// SPDX-License-Identifier: MIT
// virtual_board/program/board_state.h: what a running board looks like from outside, as text and as JSON.
#pragma once

#include "board/virtual_board.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace board
{

// A connection that somebody has with the daemon, as the board's kernel lists it.
struct Connection {
    std::string peer; // "10.20.30.1:40312"
    unsigned port;    // of the daemon
};

std::vector<Connection> Connections(const VirtualBoard &board);

nlohmann::json StateJson(const VirtualBoard &board);
std::vector<std::string> StateLines(const VirtualBoard &board);

// JSON requires UTF-8; other bytes, which the daemon may write, become replacement characters.
std::string DumpJson(const nlohmann::json &document);

std::string ConnectionLine(const Connection &connection); // "10.20.30.1:40312 on port 8870"
std::string ModemText(const ModemView &modem);            // "in, registered, 1 SMS"
std::string FrameLine(const Frame &frame);                // "a5 09 64 00 00 00 a5  luminance 100"
std::string MessageLine(const PlayerMessage &message);    // "SS_CMD_SLANT_LINE value 1"
std::string WordsLine(const std::vector<std::string> &words);
std::string CleanLine(const std::string &text); // control characters made visible

} // namespace board
