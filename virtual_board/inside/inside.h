// SPDX-License-Identifier: MIT
// virtual_board/inside/inside.h: the helper that runs inside the board; which part of it runs is decided by
// the name it was started under. Static, without sanitizers, so that starting it costs next to nothing.
#pragma once

namespace inside
{

// Process 1 of the board: enters the root, starts what the library asks for, reaps, reports.
int RunInit(const char *root, int channel);

// "/bin/sh": writes the command line of -c to the journal, then becomes BusyBox's shell.
int RunRecorder(int argc, char **argv);

// reboot, poweroff, halt, hwclock, date, pppd, sync: what must not happen on the machine that plays the
// board. `name` is the stand-in's; returns false when there is none of that name.
bool RunStandIn(const char *name, int argc, char **argv, int &status);

// One atomic append to the journal.
void AppendToJournal(char kind, const char *bytes, unsigned long size);

} // namespace inside
