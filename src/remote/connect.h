// SPDX-License-Identifier: MIT
// src/remote/connect.h: the thread that connects to the remote server, logs in and hands the socket over.
#pragma once

class RemoteConnection;

// Starts a thread that works with the connection's address and ends after the login. Every older thread ends
// at its next step, its socket closed. Any thread; whether a thread could be started is logged. If it could
// not, or if it ends because of a failure that may pass, a retry is due later (connection.h).
void StartConnectThread(RemoteConnection *connection);
