// SPDX-License-Identifier: MIT
// src/settings/serial_signals.h: SIGUSR1 sends "/home/root/plexa/serial.ini" to the FPGA (docs/protocols.md,
// "Files"), SIGUSR2 turns the slant lines on and off (docs/protocols.md, "Slant lines").
#pragma once

// Catches the signals from now on. False when they cannot be (logged).
bool InstallSignals();

// The handler: only notes the signal for the thread, which prints and does what it asks for.
void sig_handle(int signal);

// Starts the thread that acts on the signals, also on those that came since InstallSignals. It also moves the
// slant lines once a second while the setting service has no client. Once, when the services are published.
void StartSignalThread();
