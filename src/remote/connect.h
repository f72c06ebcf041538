// SPDX-License-Identifier: MIT
// src/remote/connect.h: threads that connect to the remote server, log in and hand the socket over.
//
// Of all that were started only the newest may log in: an older one ends at its next step, its socket closed.
#pragma once

#include <mutex>

struct DeviceContext;

std::mutex &RemoteMutex();

void StartConnectThread(DeviceContext *context); // makes every older one end
void EndConnectThreads();                        // the same without a new one; RemoteMutex() is held
void WaitForConnectThreads();                    // until none is left; RemoteMutex() is not held

// How soon the next connect may follow the last one. RemoteMutex() is held.
void SetConnectPace(bool quick); // false: the server has not shown that it wants this board
void MonitorIsKnown();           // a thread may hand over from now on
