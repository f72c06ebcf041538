// SPDX-License-Identifier: MIT
// third_generation.h — the 3G modem service (docs/protocols.md, "Modem"). Main thread.
#pragma once

struct SocketSession;

class KThirdGeneration
{
public:
    int DisposePacket(SocketSession *session); // 0 done, -1 close the session
};
