// SPDX-License-Identifier: MIT
// version_thread.h — the firmware upgrade service (docs/protocols.md, "Firmware"). Main thread.
#pragma once

struct SocketSession;

class KVersionThread
{
public:
    int LogIn();                               // 0
    int LogOut();                              // 0
    int DisposePacket(SocketSession *session); // 0 done, -1 close the session
};
