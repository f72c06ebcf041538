// SPDX-License-Identifier: MIT
// src/settings/player_requests.h: what the player's requests do to the settings and the FPGA
// (docs/protocols.md, "Player"). The main thread puts them into a queue, and a thread of their own carries
// them out in order, so that the work loop never waits for the setting service's lock, which another client's
// command may hold for seconds.
#pragma once

#include "player/server_witch_plexa.h"
#include "settings/request_queue.h"

class SettingRequests : public PlayerRequests
{
public:
    void ChangeScreenSize(std::uint32_t value) override;
    void ChangeBrightness(std::uint32_t value) override;
    void UpdateSettingFile() override;
    void ScreenOnOff(std::uint32_t value) override;
    void RebootBoard() override;

private:
    RequestQueue queue_;
};
