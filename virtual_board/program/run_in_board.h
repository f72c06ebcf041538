// SPDX-License-Identifier: MIT
// virtual_board/program/run_in_board.h: programs inside a running board, started from another process.
#pragma once

#include <string>
#include <vector>

namespace board
{

// On the caller's own terminal. Returns the exit status, or 1 with a message on standard error.
int RunInRunningBoard(const std::vector<std::string> &arguments);

} // namespace board
