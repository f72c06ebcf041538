// SPDX-License-Identifier: MIT
// tool/terminal/interrupt.h: Ctrl-C ends whatever waits, in any thread, so that a verb can say what state the
// board is in. A second Ctrl-C kills the tool at once.
#pragma once

#include <chrono>

namespace ledboard
{

using Clock = std::chrono::steady_clock;

// Catches SIGINT and SIGTERM from now on.
void WatchInterrupt();

bool Interrupted();

// Waits until `fd` (-1: none) has one of the poll `events`. False when the deadline passes first; throws
// VerbError(kInterrupted) when the tool is interrupted.
bool WaitFor(int fd, short events, Clock::time_point deadline);

} // namespace ledboard
