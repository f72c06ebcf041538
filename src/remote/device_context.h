// SPDX-License-Identifier: MIT
// src/remote/device_context.h: the client of the remote management server (docs/protocols.md, "Remote
// server"): its record, its address and its connection. What the server then asks for is in client.h.
//
// Main thread, where a comment does not say "any thread". Connect threads read the address fields and
// write privateFD and what monitor points to: use the operations and CopyMonitor for these.
#pragma once

#include "records/discovery_records.h"
#include "state/monitor_slots.h"

#include <cstdio>

class RemoteConnection;
struct DeviceContext;

// The record begins with its operations, always called with the record first. InitDeviceContext fills them
// in.
struct DeviceContext {
    void (*LoadConfigFile)(DeviceContext *, const char *path);
    void (*ConnectToServer)(DeviceContext *);
    void (*SetSocketFD)(DeviceContext *, int fd);
    int (*GetSocketFD)(DeviceContext *); // -1 when not connected; any thread
    void (*DisposePacket)(DeviceContext *);
    void (*SetMonitor)(DeviceContext *, MonitorSession *); // NULL: none; the socket is then closed
    MonitorSession *(*GetMonitor)(DeviceContext *);
    void (*Heartbeat)();
    void (*DisconnectFromServer)(DeviceContext *);
    void (*SetAddrParam)(DeviceContext *, const char *addr, int domainFlag, int port, const char *username);
    wire::AddrParam (*GetAddrParam)(DeviceContext *);
    int bufferIndex; // bytes held of an incomplete packet
    char *buffer;    // wire::kRemoteBufferSize bytes, owned
    int privateFD;
    MonitorSession *monitor; // the work loop's slot, not owned
    short domainFlag;        // 0: addr is a dotted address; 1: a host name
    union {
        char ip[16];
        char domain[256];
    } addr; // all of its bytes may be text
    int port;
    char username[20];      // likewise
    char lockFlag;          // 1: a remote user holds the device
    char uDiskFlag;         // was a USB disk there at the remote login
    std::FILE *file;        // program file being received, owned
    unsigned crc32;         // over what was received of it
    const char *programDir; // of the remote session, ends in "/"; NULL before the first
    char finishFlag;        // 1: the server said that the transfer is finished
};

extern const char *const g_remoteServerFile;

void InitDeviceContext(DeviceContext *context);
void DestroyDeviceContext(DeviceContext *context); // waits for the connect threads

// The connection of the one record that there is. Any thread.
RemoteConnection &Connection();

// A copy of slot 8, which connect threads write, taken under the lock that they write it under. Any thread;
// there must be a record.
MonitorSession CopyMonitor(const MonitorSession &slot);

// Closes the connection after a failure and begins another one with what the configuration file says. Whoever
// gets to know of it must let go of the socket and of the packet that it was handling.
void Reconnect(DeviceContext *context);

// The same for a peer that does not speak the protocol: the next connect keeps its distance.
void DropConnection(DeviceContext *context);
