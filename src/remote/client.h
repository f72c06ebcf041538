// SPDX-License-Identifier: MIT
// src/remote/client.h: the client of the remote management server (docs/protocols.md, "Remote server"): the
// one object behind the record DeviceContext. It owns the connection with its connect threads, the receive
// buffer and the session of the remote user; it receives packets, dispatches them, and sends the answers.
//
// Main thread only, except Connection(). Only this object ends or replaces the connection, and after that it
// touches nothing of what the old one had sent.
#pragma once

#include "remote/connection.h"
#include "remote/session.h"

#include <array>
#include <thread>

class RemoteClient
{
public:
    // Empties the data of the record, which outlives this object, and lends it the receive buffer.
    explicit RemoteClient(DeviceContext *record);
    ~RemoteClient();

    // Calls `retry` on a thread of its own whenever a retry of the connection is due. Once.
    void StartRetries(void (*retry)());

    RemoteConnection &Connection() { return connection_; } // any thread

    void Disconnect();                        // and forgets the server
    void SetMonitor(MonitorSession *monitor); // NULL: nobody watches the socket any more, so it is closed

    void DisposePacket(); // the descriptor in slot 8 is readable

    bool HeartbeatIsDue(); // once in seven calls
    void SendHeartbeat();  // after the device parameters if these have changed

private:
    void Receive();
    void HandleHeld();

    // False if the connection was lost. It may have been replaced already, and the buffer is empty.
    bool HandlePacket(wire::Bytes packet);
    bool HandleLoginAnswer(wire::Bytes packet);
    bool HandleInner(wire::Bytes packet);

    bool SendDeviceParam();
    bool SendAnswer(const char *function, RemoteAnswer answer);
    bool SendOrReconnect(const char *function, wire::Bytes packet);

    bool SendToServer(wire::Bytes packet) const; // false: not sent whole, with errno

    void LoseConnection();
    void DropBroken();
    void Reconnect();

    DeviceContext *record_;
    RemoteConnection connection_;
    RemoteSession session_;
    std::array<char, wire::kRemoteBufferSize> buffer_;
    std::thread retries_;

    // Given names.
    wire::RemoteDeviceParam s_device_param{}; // as it was last sent
    int Heartbeat_counts = 0;                 // calls since the last heartbeat
};
