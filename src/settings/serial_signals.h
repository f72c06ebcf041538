// SPDX-License-Identifier: MIT
// src/settings/serial_signals.h: SIGUSR1 sends "/home/root/plexa/serial.ini" to the FPGA (docs/protocols.md,
// "Files"), SIGUSR2 turns the slant lines on and off (docs/protocols.md, "Slant lines").
//
// The handler only writes the signal's number into a pipe; a thread of its own reads it and acts.
#pragma once

#include <functional>

// What the thread does. It calls these without any lock.
struct SignalActions {
    std::function<void(unsigned id, unsigned value)> writeParameter; // for a line of "serial.ini"
    std::function<bool()> toggleSlantLines;                          // true: they are on now
    std::function<void()> drawSlantLines;                            // once a second while they are on
};

// Catches both signals from now on. False if that fails (logged). Main thread, before any other starts.
bool InstallSignals();

void sig_handle(int signal); // the handler

// Starts the thread, which acts on the signals that came since InstallSignals too and runs until the process
// ends. Once; a failure is logged.
void StartSignalThread(SignalActions actions);
