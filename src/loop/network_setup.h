// SPDX-License-Identifier: MIT
// src/loop/network_setup.h: what the work loop does before its first round. Main thread.
#pragma once

#include "state/monitor_slots.h"

#include <memory>

// Reads addresses, MAC, addressing mode and USB disk into the device record and the status flags. False when
// the MAC could not be had (logged).
bool GetSystemEnvInfo();

// Makes the nine slots and opens those that are needed. NULL when one cannot be opened; all are closed then.
std::unique_ptr<MonitorSlots> InitListener();

// Closes the descriptors of all nine slots and marks them as not watched.
void CloseSlots(MonitorSlots *slots);
