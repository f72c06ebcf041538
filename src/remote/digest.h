// SPDX-License-Identifier: MIT
// src/remote/digest.h: answers GetFileMD5. A large file is read by a worker thread; the work loop then
// watches the worker's event in place of the server's socket, so that it serves everybody else and the
// server's next command waits. Main thread only.
#pragma once

#include "records/wire_types.h"

struct DeviceContext;

namespace remote
{

bool GetFileMD5(DeviceContext *context, wire::Bytes packet); // a RemoteHandler
bool DigestIsPending();
bool FinishDigest(DeviceContext *context); // the event fired: answers; false when the connection was lost
void AbandonDigest();                      // the connection is gone; the worker ends by itself

} // namespace remote
