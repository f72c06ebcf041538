// SPDX-License-Identifier: MIT
// device_context.h — the client of the remote management server (docs/protocols.md, "Remote server").
#pragma once

#include "discovery_records.h"
#include "network.h"

#include <cstdio>

struct DeviceContext;

// The record begins with its operations, always called with the record first. InitDeviceContext fills them
// in.
struct DeviceContext {
    void (*LoadConfigFile)(DeviceContext *, const char *path);
    void (*ConnectToServer)(DeviceContext *);
    void (*SetSocketFD)(DeviceContext *, int fd);
    int (*GetSocketFD)(DeviceContext *); // -1 when not connected
    void (*DisposePacket)(DeviceContext *);
    void (*SetMonitor)(DeviceContext *, MonitorSession *); // NULL: none
    MonitorSession *(*GetMonitor)(DeviceContext *);
    void (*Heartbeat)();
    void (*DisconnectFromServer)(DeviceContext *);
    void (*SetAddrParam)(DeviceContext *, const char *addr, int domainFlag, int port, const char *username);
    wire::AddrParam (*GetAddrParam)(DeviceContext *);
    int bufferIndex;
    char *buffer;
    int privateFD;
    MonitorSession *monitor;
    short domainFlag;
    union {
        char ip[16];
        char domain[256];
    } addr;
    int port;
    char username[20];
    char lockFlag;
    char uDiskFlag;
    std::FILE *file;
    unsigned crc32;
    const char *programDir;
    char finishFlag;
};

extern const char *const g_remoteServerFile;

void InitDeviceContext(DeviceContext *context);

// A copy of the slot under the lock that guards slot 8. Any thread.
MonitorSession CopyMonitor(const MonitorSession &slot);
