// SPDX-License-Identifier: MIT
// src/settings/setting_parameters.h: the parameters of the screen: sends them to the FPGA, changes them in
// the working copy, and keeps three of them in memory.
//
// A parameter is an id and a value. Its id is a frame's command, so that only the low 8 bits reach the FPGA;
// the working copy holds it in full. The setting service holds its lock in all of it.
#pragma once

#include "settings/setting_lock.h"

#include <cstdint>

class FpgaWriter;

class SettingParameters
{
public:
    explicit SettingParameters(FpgaWriter *fpga) : fpga_(fpga) {} // which outlives this object

    // Sends all parameters of the working copy and takes the two luminances from it. 1: sent, or as many as a
    // file that is too short holds (logged). 0: there is no working copy, or its header is invalid (logged).
    int SendAll(const SettingLock &lock);

    // Sends one parameter and saves it as Save does. 254 is the brightness in percent and not saved. The
    // device record gets the screen size of the boot copy.
    void Write(const SettingLock &lock, std::uint32_t id, std::uint32_t value);

    // Changes one parameter in the working copy, after which the boot copy follows; one that the working copy
    // does not hold is not added. A new screen size changes the maximum luminance too.
    void Save(const SettingLock &lock, std::uint32_t id, std::uint32_t value);

    // Takes the two luminances from the working copy and limits them: 1 <= luminance <= maximum <= 1000.
    // Without a working copy the maximum becomes 1.
    void LoadCaches(const SettingLock &lock);

    // In percent; 0 and more than 100 count as 100. Sent to the FPGA as 0 to 255, never saved.
    void SetBrightness(const SettingLock &lock, std::uint8_t percent);

    std::uint32_t MaxLuminance(const SettingLock &) const { return maxLuminance; }
    std::uint32_t BrightnessPercent(const SettingLock &) const { return brightnessPercent; }

private:
    void ScreenSizeChanged(const SettingLock &lock);

    FpgaWriter *fpga_;
    std::uint32_t maxLuminance = 1;
    std::uint32_t luminance = 1; // in use
    std::uint32_t brightnessPercent = 100;
};
