// SPDX-License-Identifier: MIT
// src/state/addressing_mode.h: whether eth0 has a fixed address, and the custom port that goes with one.
// Start-up reads both, an address change sets both. Any thread.
#pragma once

constexpr int kMinCustomPort = 10000;
constexpr int kMaxCustomPort = 65535;

int GetFixedStatus(); // 0 dynamic, 1 fixed address
void SetFixedStatus(int status);
int GetCustomPort(); // 0: no custom port
void SetCustomPort(int port);
