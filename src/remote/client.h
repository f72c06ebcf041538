// SPDX-License-Identifier: MIT
// src/remote/client.h: packets of the remote server: received, dispatched and answered. Main thread only.
#pragma once

#include "remote/framing.h"

struct DeviceContext;

void DisposePacket(DeviceContext *context); // the work loop found slot 8 readable
void Heartbeat();                           // tick function

// What every handler of an inner command is: `packet` is complete. False when the connection was lost, closed
// or replaced meanwhile; nothing of it may be used after that.
using RemoteHandler = bool (*)(DeviceContext *context, wire::Bytes packet);

bool SendDeviceParam(DeviceContext *context); // false as above

// A reply's two headers; `innerLength` is what the inner length says.
wire::RemoteSessionHeader ReplyHeader(std::size_t innerLength, wire::RemoteReply reply);

// Sends a reply, or reconnects with a line under the handler's name. False as above.
bool SendReply(DeviceContext *context, const char *function, wire::Bytes reply);
bool SendResult(DeviceContext *context, const char *function, wire::RemoteReply reply, std::uint32_t result);
