// SPDX-License-Identifier: MIT
// src/settings/setting_commands.h: what the setting service does with a packet (docs/protocols.md,
// "Settings").
#pragma once

#include "settings/fpga_writer.h"
#include "settings/setting_parameters.h"
#include "settings/setting_staging.h"
#include "settings/setting_transfer.h"

struct SettingAnswer;

// What the commands work on. All clients share it; each use needs the service's lock.
struct SettingParts {
    FpgaWriter fpga;
    SettingParameters parameters{&fpga};
    SettingStaging staging;
    SettingTransfer luminanceFile{kLuminanceTransfer};
    SettingTransfer bootScreenFile{kBootScreenTransfer};
    bool rtsFlag = false;   // the parameters of frames are saved too
    bool debugFlag = false; // a client debugs the player, which is then not looked for when the client leaves
};

// Handles one packet: its length byte, which is not 0, and what that announces. What has to be done without
// the lock, such as sending the answer, goes into `answer`. Non-zero to go on, 0 to end the connection.
int HandleSettingPacket(const SettingLock &lock, SettingParts *parts, SettingClient client, wire::Bytes bytes,
                        SettingAnswer *answer);

// Looks for the player's process; the result is not used. Runs a command, so call it without the lock.
void ProbePlayer();
