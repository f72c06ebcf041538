// SPDX-License-Identifier: MIT
// src/loop/network.h: the work loop: one thread, nine watched endpoints, every TCP client (docs/protocols.md,
// first table).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

struct llist;

// One watched endpoint. Slots 0 to 7 belong to the main thread. Slot 8 is filled by the remote-server client
// under its own lock: read it through CopyMonitor (device_context.h).
struct MonitorSession {
    std::int32_t fd = -1;       // -1 when not open
    std::int32_t type = 0;      // slot number, selects the handler
    std::int32_t valid = 0;     // 1: watched by select
    std::int32_t localIP = 0;   // not used
    std::int32_t localPort = 0; // port it was opened on, 0 where none
};

enum MonitorSlot : std::size_t {
    kSlotDiscovery = 0,
    kSlotSessions = 1,
    kSlotUsbEvents = 2, // laid out, never opened
    kSlotLink = 3,
    kSlotTick = 4,
    kSlotProbe = 5,
    kSlotCustomSessions = 6,
    kSlotCustomDiscovery = 7,
    kSlotRemoteServer = 8,
    kSlotCount = 9,
};
using MonitorSlots = std::array<MonitorSession, kSlotCount>;

// Status flags that the services share. Any thread may read and write them.
struct ServerStatus {
    std::atomic<char> ipSetFlag{0};
    std::atomic<char> tcpConnectFlag{0};
    std::atomic<char> uDiskConnectFlag{0};  // 1: a USB disk is there
    std::atomic<char> netlinkFlag{1};       // 1: link up
    std::atomic<char> upgradeFlag{0};       // 1: a firmware session is open
    std::atomic<std::int32_t> uDiskSize{0}; // KiB, as CheckIsUDiskCard gives it
    std::atomic<std::int32_t> ipAddress{0};
};

extern ServerStatus g_serverStatus;
extern MonitorSlots *g_sessions; // the nine slots while the loop runs, else NULL; main thread only
extern llist *g_llist;           // accepted TCP clients while the loop runs, else NULL; see client_session.h

// Runs until the listeners cannot be set up or select fails. Main thread.
void WorkLoop();

// TCP listener of backlog 1, non-blocking, close-on-exec. The descriptor, or -1 (logged).
int InitTcpSocket(const char *address, int port);

// Closes every listener and session descriptor before the process is replaced by an install script: `fd` -1,
// `valid` 0, the remote-server client loses its monitor. Sessions stay in the list. Main thread.
void FreeAllSocketResource();
