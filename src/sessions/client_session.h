// SPDX-License-Identifier: MIT
// src/sessions/client_session.h: accepted TCP clients, and the registry that ages them.
//
// The registry (s_list) holds the same sessions as the work loop's list. A session whose peer is not heard of
// by a discovery search for 42 ticks is marked for closing, unless it is the player's.
//
// Sessions belong to the main thread. Other threads see them only through FindSession, which looks at subType
// and fd under the list's lock; whoever changes one of these two, or links and unlinks a session, holds
// SessionListMutex(). The lock is a leaf: nothing is called and nothing is sent under it.
#pragma once

#include "base/sockets.h"
#include "common/unique_fd.h"
#include "records/session_records.h"
#include "sessions/llist.h"

#include <array>
#include <mutex>

struct SocketSession {
    std::int32_t fd = -1;     // -1 once closed
    std::int32_t type = 1;    // 1: the kind that the work loop serves
    std::int32_t subType = 0; // wire::SessionType once logged in
    std::int32_t remain = 0;  // bytes held in buff
    void *session = nullptr;  // service bound at login; NULL before; kPlayerChannel for the player
    char *buff = nullptr;     // wire::kSessionBufferSize bytes, owned by the session
    char connectFlag = 1;     // 0: the work loop closes it in its next round
    std::int32_t ip = 0;      // peer, network byte order
    std::int32_t port = 0;    // peer, network byte order
    std::int32_t timeout = 0; // ticks since the peer was last heard of
};

// What `session` holds for the player, which has no service object.
inline void *const kPlayerChannel = reinterpret_cast<void *>(-1);

extern llist *g_llist; // accepted TCP clients while the work loop runs, else NULL; see above for its lock

constexpr int kSessionTimeout = 41; // ticks; a session older than this is closed

std::mutex &SessionListMutex();

void RegisterClientConnect(SocketSession *session);   // creates the registry on first use
void UnregisterClientConnect(SocketSession *session); // nothing when it is not registered
void UpdateClientSession(std::int32_t ip); // network byte order; the first session of this peer is young
                                           // again
void ClientSessionTick();                  // tick function, about once a second

// A session as another thread may use it: its own descriptor of the same socket stays usable when the session
// ends.
struct FoundSession {
    enum Result { kNone, kEmptyNode, kFound };
    Result result = kNone;     // kEmptyNode: a node without a session came first
    int fd = -1;               // the session's descriptor number, for log lines only
    ledboard::UniqueFd socket; // a duplicate to send on
};
FoundSession FindSession(std::int32_t subType); // any thread; the first one in list order

// Closes the socket of the first session of this sub-type; the work loop releases the session in its next
// round. Main thread.
FoundSession::Result DropSession(std::int32_t subType);
