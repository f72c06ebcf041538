// SPDX-License-Identifier: MIT
// src/base/sockets.h: sends that neither raise SIGPIPE nor stall the caller for long.
#pragma once

#include "records/wire_types.h"

// Sets O_NONBLOCK. True when it is set.
bool SetNonBlocking(int fd);

// Gives a blocking socket the time limit that every send on a session has (2 s in all, then a short count).
void SetSessionSendLimit(int fd);

// Sends all bytes without SIGPIPE and goes on after a signal, for some 2 s in all however many signals come.
// The number of bytes taken by the kernel, fewer than all when the peer does not read; -1 with errno when
// none was.
long SendBytes(int fd, wire::Bytes bytes);
