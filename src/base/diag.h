// SPDX-License-Identifier: MIT
// src/base/diag.h: the one line format of the daemon's log on standard output. Any thread; a line is never
// torn.
#pragma once

// Prints "[---unit::function::line---] message\n". `unit` is the name that the line must show
// ("src/network.c"), `function` and `line` are fixed by the protocol documents in a few places and __func__,
// __LINE__ elsewhere.
void Diag(const char *unit, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// The same for a failed system call: the line ends in a blank and "text, number.\n" of the current errno
// follows. errno is what it was when the call returns.
void DiagErrno(const char *unit, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Makes standard output line-buffered, so that a log file shows what happened. Once, before the first line.
void InitDiag();
