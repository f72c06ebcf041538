// SPDX-License-Identifier: MIT
// src/base/diag.h: lines of the daemon's log on standard output, all in one format. Any thread; lines of
// different threads do not mix.
#pragma once

// Prints "[---unit::function::line---] message\n". `unit` is the name by which readers of the log know the
// source ("src/network.c"), whatever file the call is in. Of some lines `function` and `line` are fixed as
// well and written out in the call; everywhere else they are __func__ and __LINE__.
void Diag(const char *unit, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The same for a failed system call: the message is followed by a blank and the current errno as
// "text, number.\n". Leaves errno as it was.
void DiagErrno(const char *unit, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Makes standard output line-buffered also if it is a file, so that the log is complete after a crash. Call
// it once, before the first line.
void InitDiag();
