// SPDX-License-Identifier: MIT
// src/settings/player_requests.h: what the player asks of the settings and the FPGA (docs/protocols.md,
// "Player"). Main thread.
#pragma once

#include <cstdint>

void ChangeScreenSize(std::uint32_t value); // width in the low, height in the high 16 bits
void ChangeBrightness(std::uint32_t value); // percent
void UpdateSettingFile();              // takes the player's settings file over when it says something new
void ScreenOnOff(std::uint32_t value); // 0 on, anything else off
