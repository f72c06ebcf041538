// SPDX-License-Identifier: MIT
// src/state/tick.h: what runs about once a second: the tick source and the table of tick functions.
#pragma once

using TickFunction = void (*)();

constexpr int kTickSlots = 5;

// The table may be changed from any thread, also by a tick function. A function inserted twice runs twice a
// tick.
void InsertToTick(TickFunction fn);   // into the first empty slot; logged when none is empty; NULL is ignored
void RemoveFromTick(TickFunction fn); // clears the first slot that holds it, if one does; NULL is ignored
void CallTickFunctions();             // calls the slots 0 to 4 in order, outside the table's lock
int SlotsInTick(TickFunction fn);     // how many slots hold it

// As InsertToTick; but a function that finds no empty slot and is in none waits (logged) until one is empty
// at the end of a tick, or until it is removed. For what must not get lost in a second that fills the table.
void InsertToTickOrWait(TickFunction fn);

// Opens the tick source: the board's timer driver (netlink protocol 28), or where the kernel has none a timer
// of one second; one log line says which. The descriptor (non-blocking, close-on-exec), or -1 (logged).
int InitTick();

// Reads the source when it is readable. 1 a second has passed, 0 not yet, -1 nothing could be received.
int ReadTick(int fd);
