// SPDX-License-Identifier: MIT
#include "sessions/reboot_schedule.h"

#include "common/pc/verb_error.h"

#include <gtest/gtest.h>

namespace ledboard
{

namespace
{

template <typename Function> void ExpectUsage(const char *text, Function function)
{
    try {
        function();
        ADD_FAILURE() << text;
    } catch (const VerbError &error) {
        EXPECT_EQ(error.Status(), ExitStatus::kUsage) << text;
    }
}

std::string Little(unsigned value, int bytes)
{
    std::string text;
    for (int shift = 0; shift < 8 * bytes; shift += 8)
        text += static_cast<char>(value >> shift & 0xFF);
    return text;
}

// All 21 bytes, so that the places in the file are seen here.
std::string TextOf(const std::string &bytes)
{
    return PloyText(PloyJson(*wire::Read<wire::RebootPloy>(wire::BytesAt(bytes.data(), bytes.size()))));
}

} // namespace

TEST(RebootSchedule, DaysAndTimesAreRead)
{
    const struct {
        const char *text;
        std::uint32_t mask;
    } days[] = {{"mon", 0x02},
                {"sun", 0x80},
                {"mon,thu", 0x12},
                {"Thu,MON,thu", 0x12},
                {"mon,tue,wed,thu,fri,sat,sun", 0xFE}};
    for (const auto &row : days)
        EXPECT_EQ(ParseDays(row.text), row.mask) << row.text;
    for (const char *const text : {"", ",", "mon,", ",mon", "mon thu", "monday", "mo", "1", "mon,,thu"})
        ExpectUsage(text, [&] { ParseDays(text); });

    wire::RebootPloy ploy{};
    ParseTimeOfDay("04:30", &ploy);
    const std::string enabled = Little(1, 1), unread(2, '\0'), minuteOffset = Little(0, 2);
    const std::string time = {static_cast<char>(ploy.hour), static_cast<char>(ploy.minute),
                              static_cast<char>(ploy.second), 0};
    const std::string mode = Little(0, 4), everyDay = Little(1, 4), weekdayMask = Little(0, 4);
    EXPECT_EQ(TextOf(enabled + unread + minuteOffset + time + mode + everyDay + weekdayMask),
              "reboots every day at 04:30:00");
    ParseTimeOfDay("23:59:58", &ploy);
    EXPECT_EQ(std::tuple(ploy.hour, ploy.minute, ploy.second), std::tuple(23, 59, 58));
    for (const char *const text : {"", "4", "24:00", "12:60", "12:00:60", "12:00:00:00", "noon", "12:30pm"})
        ExpectUsage(text, [&] { ParseTimeOfDay(text, &ploy); });
}

TEST(RebootSchedule, IsShownAsTheBoardTakesIt)
{
    const auto ploy = [](char enabled, int offset, unsigned mode, unsigned days, unsigned mask) {
        constexpr char kUnread = '?', kHour = 4, kMinute = 30, kSecond = 9;
        return std::string{enabled, kUnread, kUnread} + Little(static_cast<unsigned>(offset), 2) +
               std::string{kHour, kMinute, kSecond, kUnread} + Little(mode, 4) + Little(days, 4) +
               Little(mask, 4);
    };
    const struct {
        std::string bytes;
        const char *text;
    } rows[] = {
        // enabled, minute offset, mode, days, weekday mask
        {ploy(0, 0, 0, 3, 0), "no scheduled reboot"},
        {ploy(1, 0, 0, 1, 0), "reboots every day at 04:30:09"},
        {ploy(1, 0, 0, 7, 0x12), "reboots every 7 days at 04:30:09"},
        {ploy(1, 0, 0, 8, 0),
         "reboots every day (8 is stored, but a board counts modulo one week) at 04:30:09"},
        {ploy(1, 0, 0, 62, 0),
         "reboots every 6 days (62 is stored, but a board counts modulo one week) at 04:30:09"},
        {ploy(1, 0, 0, 63, 0), "reboots every day at 04:30:09"},
        {ploy(1, 0, 0, 0, 0), "reboots every day at 04:30:09"},
        {ploy(1, 0, 2, 2, 0x12), "reboots every 2 days at 04:30:09"},
        {ploy(1, 0, 1, 2, 0x12), "reboots on mon,thu at 04:30:09"},
        {ploy(1, 0, 1, 2, 1), "no scheduled reboot"},
        {ploy(1, 0, 1, 2, 0x102), "no scheduled reboot"},
        {ploy(1, -90, 1, 2, 0x80), "reboots on sun at 04:30:09 of a clock -90 minutes from the board's"},
        {ploy(1, 1441, 1, 2, 0x80), "reboots on sun at 04:30:09"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(TextOf(row.bytes), row.text);
}

} // namespace ledboard
