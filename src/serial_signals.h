// SPDX-License-Identifier: MIT
// serial_signals.h — SIGUSR1 sends "/home/root/plexa/serial.ini" to the FPGA (docs/protocols.md, "Files").
#pragma once

// Catches the signal from now on. False when it cannot be (logged).
bool InstallSignals();

// The handler: only notes the signal for the thread, which prints and does what it asks for.
void sig_handle(int signal);

// Starts the thread that acts on the signals, also on those that came since InstallSignals. Once, when the
// services are published.
void StartSignalThread();
