// SPDX-License-Identifier: MIT
// src/remote/session.h: begins and ends the session of a remote user, and tells him what is in the program
// folder. Main thread only; the functions that take a packet are RemoteHandlers.
#pragma once

#include "records/wire_types.h"

struct DeviceContext;

namespace remote
{

bool LogIn(DeviceContext *context, wire::Bytes packet);
bool UnlockDevice(DeviceContext *context, wire::Bytes packet);
bool SendFinish(DeviceContext *context, wire::Bytes packet);
bool GetProgramFileListed(DeviceContext *context, wire::Bytes packet);
bool GetVideoFilename(DeviceContext *context, wire::Bytes packet);
bool RemoveNotVideoFile(DeviceContext *context, wire::Bytes packet);

} // namespace remote
