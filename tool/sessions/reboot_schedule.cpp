// SPDX-License-Identifier: MIT
#include "sessions/reboot_schedule.h"

#include "common/pc/verb_error.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <string_view>
#include <vector>

namespace ledboard
{

namespace
{

constexpr std::string_view kDays[] = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};
constexpr std::uint32_t kDaysOfWeek = 7;
constexpr std::uint32_t kMaxDays = 62;
constexpr std::uint32_t kMaxMask = 255;
constexpr int kMaxOffset = 1440; // minutes, both ways

std::uint32_t BitOf(std::string day)
{
    std::transform(day.begin(), day.end(), day.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    for (unsigned index = 0; index < kDaysOfWeek; ++index) {
        if (day == kDays[index])
            return 1U << (index + 1);
    }
    return 0;
}

std::vector<std::string> DaysOf(std::uint32_t mask)
{
    std::vector<std::string> days;
    for (unsigned index = 0; mask <= kMaxMask && index < kDaysOfWeek; ++index) {
        if ((mask >> (index + 1) & 1U) != 0)
            days.emplace_back(kDays[index]);
    }
    return days;
}

std::string EveryText(std::uint32_t days)
{
    const std::uint32_t real = DaysBetweenReboots(days);
    const std::string text = real == 1 ? "every day" : fmt::format("every {} days", real);
    return real == days ? text
                        : fmt::format("{} ({} is stored, but a board counts modulo one week)", text, days);
}

} // namespace

std::uint32_t ParseDays(const std::string &text)
{
    std::uint32_t mask = 0;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(',', at), text.size());
        const std::uint32_t bit = BitOf(text.substr(at, end - at));
        if (bit == 0)
            throw VerbError(ExitStatus::kUsage, "'" + text + "' is not a list of days such as mon,thu");
        mask |= bit;
        at = end + 1;
    }
    return mask;
}

void ParseTimeOfDay(const std::string &text, wire::RebootPloy *ploy)
{
    for (const char *const format : {"%H:%M:%S", "%H:%M"}) {
        std::tm time{};
        const char *const rest = strptime(text.c_str(), format, &time);
        // strptime allows leap seconds.
        if (rest == nullptr || *rest != '\0' || time.tm_sec > 59)
            continue;
        ploy->hour = static_cast<wire::U8>(time.tm_hour);
        ploy->minute = static_cast<wire::U8>(time.tm_min);
        ploy->second = static_cast<wire::U8>(time.tm_sec);
        return;
    }
    throw VerbError(ExitStatus::kUsage, "'" + text + "' is not a time of day such as 04:30");
}

std::uint32_t DaysBetweenReboots(std::uint32_t days)
{
    return days == 0 ? 1 : (days - 1) % kDaysOfWeek + 1;
}

nlohmann::json PloyJson(const wire::RebootPloy &ploy)
{
    const int offset = std::int16_t{ploy.minuteOffset};
    nlohmann::json json = {{"enabled", ploy.enabled != 0}};
    json["time"] = fmt::format("{:02}:{:02}:{:02}", ploy.hour, ploy.minute, ploy.second);
    json["minuteOffset"] = offset < -kMaxOffset || offset > kMaxOffset ? 0 : offset;
    if (ploy.mode == 1)
        json["on"] = DaysOf(ploy.weekdayMask);
    else
        json["everyDays"] = ploy.days == 0 || ploy.days > kMaxDays ? 1U : std::uint32_t{ploy.days};
    return json;
}

std::string PloyText(const nlohmann::json &json)
{
    const bool onDays = json.contains("on");
    if (!json["enabled"].get<bool>() || (onDays && json["on"].empty()))
        return "no scheduled reboot";
    const auto offset = json["minuteOffset"].get<int>();
    const std::string days =
        onDays ? fmt::format("on {}", fmt::join(json["on"].get<std::vector<std::string>>(), ","))
               : EveryText(json["everyDays"].get<std::uint32_t>());
    return fmt::format("reboots {} at {}{}", days, json["time"].get<std::string>(),
                       offset == 0 ? "" : fmt::format(" of a clock {:+} minutes from the board's", offset));
}

} // namespace ledboard
