// SPDX-License-Identifier: MIT
// src/settings/reboot_ploy.h: the schedule by which the board reboots: every N days or on chosen weekdays, at
// a time of day (docs/protocols.md, "Files").
#pragma once

#include "records/setting_records.h"

#include <QDateTime>

#include <optional>

extern const char *const g_rebootPloy; // path of the schedule

// Renews the boot copy of the settings, then reads the schedule and starts or stops the countdown. A schedule
// that is missing or too short leaves the countdown as it is. Main thread and setting service's thread,
// without the service's lock.
void ReloadRebootPloy();

void RebootTimer(); // tick function: counts down and, at the end, reboots the board

// The functions below are pure; any thread.

// The schedule with each field that is out of range replaced by its default.
wire::RebootPloy ValidRebootPloy(wire::RebootPloy ploy);

// Days to wait from `now`, to which the minute offset has been added; nothing if no weekday is chosen.
std::optional<int> DaysToReboot(const wire::RebootPloy &ploy, const QDateTime &now);

// Seconds to wait, modulo one week; 0: due now.
std::int32_t SecondsToReboot(const wire::RebootPloy &ploy, const QDateTime &now, int days);
