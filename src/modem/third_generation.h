// SPDX-License-Identifier: MIT
// src/modem/third_generation.h: the 3G modem service (docs/protocols.md, "Modem"): sessions ask it how the
// modem is and what it has received. Main thread; the modem itself is driven by a thread that never keeps a
// caller waiting.
#pragma once

#include "modem/modem_thread.h"
#include "sessions/session_service.h"

struct SocketSession;

class KThirdGeneration : public SessionService
{
public:
    KThirdGeneration() : thread_(state_) {}

    void Start() { thread_.Start(); } // once
    void Stop() { thread_.Stop(); }

    int DisposePacket(SocketSession *session) override; // 0 answered, -1 close the session

private:
    int SendStatus(int fd) const; // 0 sent, -1 the peer is gone (logged)
    int SendSms(int fd) const;    // 0 sent, -1 the peer is gone (logged)

    ModemState state_;
    ModemThread thread_;
};
