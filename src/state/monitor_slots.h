// SPDX-License-Identifier: MIT
// src/state/monitor_slots.h: the nine endpoints that the work loop watches. The loop opens most of them at
// start; addressing opens and closes the custom port and the address probe, the remote client its socket.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// One watched endpoint. Slots 0 to 7 belong to the main thread. Slot 8 is filled by the remote-server client
// under its own lock: read it through CopyMonitor (remote/device_context.h).
struct MonitorSession {
    std::int32_t fd = -1;       // -1 when not open
    std::int32_t type = 0;      // slot number, selects the handler
    std::int32_t valid = 0;     // 1: watched by select
    std::int32_t localIP = 0;   // not used
    std::int32_t localPort = 0; // port it was opened on, 0: it has no port
};

enum MonitorSlot : std::size_t {
    kSlotDiscovery = 0,
    kSlotSessions = 1,
    kSlotUsbEvents = 2, // reserved, never opened
    kSlotLink = 3,
    kSlotTick = 4,
    kSlotProbe = 5,
    kSlotCustomSessions = 6,
    kSlotCustomDiscovery = 7,
    kSlotRemoteServer = 8,
    kSlotCount = 9,
};
using MonitorSlots = std::array<MonitorSession, kSlotCount>;

extern MonitorSlots *g_sessions; // the nine slots while the loop runs, else NULL; main thread only
