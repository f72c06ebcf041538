// SPDX-License-Identifier: MIT
// src/base/sockets.h: sends with a time limit and without SIGPIPE. Any thread.
#pragma once

#include "records/wire_types.h"

// Sets O_NONBLOCK; false with errno if that failed.
bool SetNonBlocking(int fd);

// Gives a blocking socket the time limit of sessions: a send ends after 2 s, with a short count if the peer
// has not taken all.
void SetSessionSendLimit(int fd);

// Sends all bytes without SIGPIPE. Continues after a signal, but for no more than about 2 s in all. Returns
// the number of bytes that the kernel took, fewer than all if the peer does not read; -1 with errno if it
// took none.
long SendBytes(int fd, wire::Bytes bytes);
