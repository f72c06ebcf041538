// SPDX-License-Identifier: MIT
// src/base/listeners.h: the sockets on which the daemon is reached. They are non-blocking and close-on-exec;
// the caller owns them. Any thread.
#pragma once

// Both take a dotted address, bind to it with SO_REUSEADDR and print a line on success. The descriptor, or -1
// (logged).
int InitTcpSocket(const char *address, int port); // a listener with a backlog of 1
int InitUdpSocket(const char *address, int port); // sends broadcasts; receives with IP_PKTINFO
