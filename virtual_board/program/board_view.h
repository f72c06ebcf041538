// SPDX-License-Identifier: MIT
// virtual_board/program/board_view.h: shows a running board until the user has seen enough.
#pragma once

#include "board/virtual_board.h"

namespace board
{

// On a terminal the live view, otherwise plain lines with commands from standard input. Returns the exit
// status; SIGINT and SIGTERM end it.
int ShowLive(VirtualBoard &board);

// The two of them.
int ShowScreen(VirtualBoard &board);
int ShowLines(VirtualBoard &board);

// Whether one of the signals has come, once WatchForEnd has been called.
void WatchForEnd();
bool EndWanted();

} // namespace board
