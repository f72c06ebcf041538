// SPDX-License-Identifier: MIT
// src/state/tick.h: the tick, about once a second: its source and the table of functions that it calls.
#pragma once

using TickFunction = void (*)();

constexpr int kTickSlots = 5;

// The table may be changed from any thread, also by a tick function. A function that is inserted twice runs
// twice a tick. NULL is ignored.
void InsertToTick(TickFunction fn);   // into the first empty slot; logged if none is empty
void RemoveFromTick(TickFunction fn); // clears the first slot that holds it; if none does, it no longer waits
int SlotsInTick(TickFunction fn);     // how many slots hold it
void CallTickFunctions();             // calls slots 0 to 4 in order, without the table's lock; main thread

// As InsertToTick, but a function that finds no empty slot and is in no slot waits (logged) for one that is
// empty at the end of a tick. For functions that must not get lost while the table is full.
void InsertToTickOrWait(TickFunction fn);

// Opens the tick source: the board's timer driver (netlink protocol 28), or a timer of one second if the
// kernel has no such driver; one log line says which. The descriptor (non-blocking, close-on-exec), or -1
// (logged). Main thread.
int InitTick();

// Reads the source when it is readable. 1 a second has passed, 0 not yet, -1 nothing could be received. Main
// thread.
int ReadTick(int fd);
