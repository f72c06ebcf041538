// SPDX-License-Identifier: MIT
// src/sessions/tcp_services.h: accepts TCP clients, logs them in, cuts packets and hands each to the
// service of its session (session_service.h). Main thread only.
#pragma once

#include "sessions/client_session.h"

int AcceptClient(int listenFd, llist *list); // 0 in all cases

// Serves a session whose socket is readable. 1 the session stays open; 0 it was closed and released, and the
// caller still has to unlink it from `list`.
int TcpServices(SocketSession *session, llist *list);

// Calls the service's logout, closes and releases a session that the caller has unlinked. NULL does nothing.
void CloseClient(SocketSession *session, llist *list);
