// SPDX-License-Identifier: MIT
// tool/sessions/reboot_schedule.h: the schedule by which a board reboots itself: reads it from words and
// formats it. No sockets.
#pragma once

#include "records/setting_records.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace ledboard
{

// "mon,thu" as a mask: bit 1 Monday to bit 7 Sunday. Throws VerbError(kUsage).
std::uint32_t ParseDays(const std::string &text);

// "HH:MM" or "HH:MM:SS" into the schedule. Throws VerbError(kUsage).
void ParseTimeOfDay(const std::string &text, wire::RebootPloy *ploy);

// The real number of days between two reboots if `days` is stored: a board counts modulo one week.
std::uint32_t DaysBetweenReboots(std::uint32_t days);

// The schedule as the board applies it: a value out of range is replaced as the board replaces it.
nlohmann::json PloyJson(const wire::RebootPloy &ploy);
std::string PloyText(const nlohmann::json &json);

} // namespace ledboard
