// SPDX-License-Identifier: MIT
// src/state/device_info.h: fills the device record from the board's files. Main thread, but for the readers,
// which any thread may call.
#pragma once

#include <cstdint>
#include <string>

void InitDeviceInfo(); // fills g_device from the board's files, once at start

// The readers of InitDeviceInfo; each reads its file afresh.
std::string getID(); // at most 13 bytes, empty when the file is missing
void getVersionNO(std::int32_t *plexa, std::int32_t *fpga); // 0 for what is missing
void getScreenSize(int *width, int *height);                // pixels; 128 by 128 when the settings do not say
std::string getDeviceName(); // at most 249 bytes; "Controller" when the file is missing or empty
int getModelType();          // 0 or 1; 1 when the settings do not say
int getBootScreenFlag();     // 1 when the boot picture is there
