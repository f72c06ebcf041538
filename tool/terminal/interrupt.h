// SPDX-License-Identifier: MIT
// tool/terminal/interrupt.h: Ctrl-C ends every wait, in every thread, so that a verb can report the state of
// its board. A second Ctrl-C kills the tool at once.
#pragma once

#include <chrono>

namespace ledboard
{

using Clock = std::chrono::steady_clock;

// Catches SIGINT and SIGTERM from now on. Called once, before the first thread is started.
void WatchInterrupt();

bool Interrupted();

// Waits until `fd` has one of the poll `events`; with -1 as `fd` it only waits for the deadline. False if the
// deadline passes first. Throws VerbError(kInterrupted) after Ctrl-C.
bool WaitFor(int fd, short events, Clock::time_point deadline);

} // namespace ledboard
