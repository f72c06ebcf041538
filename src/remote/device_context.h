// SPDX-License-Identifier: MIT
// src/remote/device_context.h: the record of the remote management server's client (docs/protocols.md,
// "Remote server"). The rest of the daemon reaches the client only through the record's operations; what they
// do is in client.h.
//
// Main thread, where a comment does not say "any thread". Connect threads read the address fields and
// write privateFD and what monitor points to: use the operations and CopyMonitor for these.
#pragma once

#include "records/discovery_records.h"
#include "state/monitor_slots.h"

#include <cstdio>

struct DeviceContext;

// The record begins with its operations, always called with the record first. InitDeviceContext fills them
// in.
struct DeviceContext {
    void (*LoadConfigFile)(DeviceContext *, const char *path); // and connects
    void (*ConnectToServer)(DeviceContext *);                  // after it has saved the address
    void (*SetSocketFD)(DeviceContext *, int fd);
    int (*GetSocketFD)(DeviceContext *); // -1 when not connected; any thread
    void (*DisposePacket)(DeviceContext *);
    void (*SetMonitor)(DeviceContext *, MonitorSession *); // NULL: no slot, so the socket is closed
    MonitorSession *(*GetMonitor)(DeviceContext *);
    void (*Heartbeat)();                           // tick function; works for g_deviceContext
    void (*DisconnectFromServer)(DeviceContext *); // and removes the saved address
    void (*SetAddrParam)(DeviceContext *, const char *addr, int domainFlag, int port, const char *username);
    wire::AddrParam (*GetAddrParam)(DeviceContext *); // any thread

    int bufferIndex;         // bytes held of an incomplete packet
    char *buffer;            // wire::kRemoteBufferSize bytes, owned by the client
    int privateFD;           // the socket, owned; -1 when not connected
    MonitorSession *monitor; // the work loop's slot, not owned
    short domainFlag;        // 0: addr is a dotted address; 1: a host name
    union {
        char ip[16];
        char domain[256];
    } addr; // all of its bytes may be text
    int port;
    char username[20];      // likewise
    char lockFlag;          // 1: a remote user holds the device
    char uDiskFlag;         // 1: a USB disk was there at the remote login
    std::FILE *file;        // program file being received, owned
    unsigned crc32;         // over what was received of it
    const char *programDir; // of the remote session, ends in "/", not owned; NULL before the first session
    char finishFlag;        // 1: the server said that the transfer is finished
};

extern const char *const g_remoteServerFile;

// Makes the client that works for the record. There is one at a time.
void InitDeviceContext(DeviceContext *context);
// Waits for the connect threads, then deletes the record, which `new` has made.
void DestroyDeviceContext(DeviceContext *context);

// A copy of slot 8, which connect threads write, taken under the lock that they write it under. Any thread;
// there must be a client.
MonitorSession CopyMonitor(const MonitorSession &slot);
