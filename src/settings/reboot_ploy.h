// SPDX-License-Identifier: MIT
// src/settings/reboot_ploy.h: the board's reboot schedule: every N days or on weekdays, at a time of day
// (docs/protocols.md, "Files").
#pragma once

#include "records/setting_records.h"

#include <QDateTime>

#include <optional>

extern const char *const g_rebootPloy; // path of the schedule

// Reads the schedule and arms or stops the countdown. A schedule that is missing or cut short leaves the
// countdown as it is. Main and setting-service thread, without the service's lock.
void ReloadRebootPloy();

void RebootTimer(); // tick function: counts down and reboots

// Out-of-range fields replaced by what they count as.
wire::RebootPloy ValidRebootPloy(wire::RebootPloy ploy);

// Days to wait from `now`, which has the minute offset in it already; nothing when no weekday is chosen.
std::optional<int> DaysToReboot(const wire::RebootPloy &ploy, const QDateTime &now);

// Seconds to wait, modulo one week; 0 is due now.
std::int32_t SecondsToReboot(const wire::RebootPloy &ploy, const QDateTime &now, int days);
