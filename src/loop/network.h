// SPDX-License-Identifier: MIT
// src/loop/network.h: the work loop: one thread, nine watched endpoints, every TCP client (docs/protocols.md,
// first table).
#pragma once

// Runs until the listeners cannot be set up or select fails. Main thread.
void WorkLoop();

// Closes every listener and session descriptor before the process is replaced by an install script: `fd` -1,
// `valid` 0, the remote-server client loses its monitor. Sessions stay in the list. Main thread.
void FreeAllSocketResource();
