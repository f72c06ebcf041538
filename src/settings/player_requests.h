// SPDX-License-Identifier: MIT
// src/settings/player_requests.h: what the player's requests do to the settings and the FPGA
// (docs/protocols.md, "Player"). Main thread.
#pragma once

#include "player/server_witch_plexa.h"

class SettingRequests : public PlayerRequests
{
public:
    void ChangeScreenSize(std::uint32_t value) override;
    void ChangeBrightness(std::uint32_t value) override;
    void UpdateSettingFile() override;
    void ScreenOnOff(std::uint32_t value) override;
};
