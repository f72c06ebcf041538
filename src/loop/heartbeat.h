// SPDX-License-Identifier: MIT
// src/loop/heartbeat.h: reports to the local supervisor once a second that the daemon is alive
// (docs/protocols.md, "Heartbeat").
#pragma once

// How start-up reaches the heartbeat.
struct HeartbeatThread {
    // A TCP socket for the dotted `address` and `port`, not yet connected; -1 when it cannot be had. `flag`
    // is kept and not used.
    int (*heartbeat_init)(const char *address, int port, int flag);
    // Starts the thread on a descriptor of 0 or more; it owns the descriptor from then on.
    void (*heartbeat_start)(int fd);
};

extern const HeartbeatThread g_heartbeat_thread;

void StartHeartbeat(); // start-up goes on whether it works or not
