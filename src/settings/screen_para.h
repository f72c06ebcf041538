// SPDX-License-Identifier: MIT
// src/settings/screen_para.h: screen size and luminance as the boot copy of the settings holds them. Any
// thread.
#pragma once

// Pixels, and the value of the sixth record. What the file does not say keeps what the caller put there.
void GetScreenPara(unsigned &width, unsigned &height, unsigned &level);

// Takes the size into the device record; 128 by 128 where the file does not say.
void RefreshScreenSize();
