// SPDX-License-Identifier: MIT
// src/modem/third_generation.h: the 3G modem service: sessions ask it for the state of the modem and for the
// messages received (docs/protocols.md, "Modem"). Main thread. The modem has a thread of its own, for which
// no call waits except Stop.
#pragma once

#include "modem/modem_thread.h"
#include "sessions/session_service.h"

struct SocketSession;

class KThirdGeneration : public SessionService
{
public:
    KThirdGeneration() : thread_(state_) {}

    void Start() { thread_.Start(); } // call it once
    void Stop() { thread_.Stop(); }   // returns when the modem thread has ended

    int DisposePacket(SocketSession *session) override; // 0 answered, -1 close the session

private:
    int SendStatus(int fd) const; // 0 sent, -1 not sent (logged)
    int SendSms(int fd) const;    // 0 sent, -1 not sent (logged)

    ModemState state_;
    ModemThread thread_;
};
