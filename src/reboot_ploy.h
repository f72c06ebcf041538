// SPDX-License-Identifier: MIT
// reboot_ploy.h — the board's reboot schedule (docs/protocols.md, "Files").
#pragma once

void ReloadRebootPloy(); // reads the schedule and arms or stops the countdown; main and setting-service
                         // thread
void RebootTimer();      // tick function
