// SPDX-License-Identifier: MIT
// src/base/listeners.h: the sockets on which the daemon is reached. Both are non-blocking and close-on-exec;
// the caller owns the descriptor. Any thread.
#pragma once

int InitTcpSocket(const char *address, int port); // TCP listener of backlog 1; -1 failed (logged)
int InitUdpSocket(const char *address, int port); // UDP socket with broadcast and packet information; -1
                                                  // failed (logged)
