// SPDX-License-Identifier: MIT
// src/sessions/session_service.h: what a service is to the session layer. Main thread only.
//
// A login names a sub-type (wire::SessionType); from then on every packet of the session goes to the service
// that start-up registered for it. Adding a service means one row in the table of tcp_services.cpp and one
// registration in main.cpp.
#pragma once

#include "records/wire_types.h"

#include <cstdint>
#include <optional>

struct SocketSession;

class SessionService
{
public:
    virtual int LogIn() { return 0; }  // a session has opened; the result is not used
    virtual int LogOut() { return 0; } // a session has ended; the result is not used

    // Handles the packet at the start of the session's buffer, which is complete. The service finishes with
    // the packet before it returns, may send on the session's socket, and must neither close the socket nor
    // release the session. -1: the session is closed (0 for the player's service).
    virtual int DisposePacket(SocketSession *session) = 0;

    // The session ends; called before LogOut, for a service that keeps something for each session.
    virtual void SessionEnds(const SocketSession *) {}

protected:
    ~SessionService() = default;
};

// Binds a service to a sub-type of the table. Before the work loop starts; the service lives for ever.
void RegisterSessionService(std::int32_t subType, SessionService *service);

// The packet at the start of the session's buffer with its frame header, as long as its length word says.
// Nothing when there is no buffer, when the length is shorter than the frame header, or when fewer bytes are
// held than it says.
std::optional<wire::Bytes> FramedPacket(const SocketSession &session);
