// SPDX-License-Identifier: MIT
// work_thread.h — the upload service (docs/protocols.md, "Upload"). Main thread.
#pragma once

struct SocketSession;

class KWorkThread
{
public:
    int LogIn();                               // 0
    int LogOut();                              // 0
    int DisposePacket(SocketSession *session); // a count or 0 done, -1 close the session
};
