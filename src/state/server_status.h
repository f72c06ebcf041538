// SPDX-License-Identifier: MIT
// src/state/server_status.h: status flags that the services share. Any thread may read and write them.
#pragma once

#include <atomic>
#include <cstdint>

struct ServerStatus {
    std::atomic<char> ipSetFlag{0};
    std::atomic<char> tcpConnectFlag{0};
    std::atomic<char> uDiskConnectFlag{0};  // 1: a USB disk is present
    std::atomic<char> netlinkFlag{1};       // 1: link up
    std::atomic<char> upgradeFlag{0};       // 1: a firmware session is open
    std::atomic<std::int32_t> uDiskSize{0}; // KiB, as CheckIsUDiskCard gives it
    std::atomic<std::int32_t> ipAddress{0};
};

extern ServerStatus g_serverStatus;
