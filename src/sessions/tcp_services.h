// SPDX-License-Identifier: MIT
// src/sessions/tcp_services.h: accepts TCP clients, logs them in, cuts packets and hands them to the
// services. Main thread only.
//
// A service's packet handler is called with the packet at the start of `buff`, as long as its length word
// says (but never trust the word beyond `remain` bytes). It finishes with the packet before it returns, may
// send on `fd`, must neither close `fd` nor release the session, and reports a failure by -1 (0 for the
// player's handler): the session is then closed.
#pragma once

#include "sessions/client_session.h"

int AcceptClient(int listenFd, llist *list); // 0 in all cases

// Serves a session whose socket is readable. 1 the session stays open; 0 it was closed and released, and the
// caller still has to unlink it from `list`.
int TcpServices(SocketSession *session, llist *list);

// Calls the service's logout, closes and releases a session that the caller has unlinked. NULL does nothing.
void CloseClient(SocketSession *session, llist *list);
