// SPDX-License-Identifier: MIT
#include "settings/reboot_ploy.h"

#include "state/tick.h"
#include "test_files.h"

#include <gtest/gtest.h>

namespace
{

constexpr std::uint32_t kMonday = 1U << 1;
constexpr std::uint32_t kWednesday = 1U << 3;
constexpr std::uint32_t kSaturday = 1U << 6;
constexpr std::uint32_t kSunday = 1U << 7;

constexpr int kStopped = -1;
constexpr int kHour = 3600;
constexpr int kDay = 86400;

// Noon of a week of November 2026.
const char *const kSaturdayNoon = "2026-11-21T12:00:00";
const char *const kSundayNoon = "2026-11-22T12:00:00";
const char *const kMondayNoon = "2026-11-23T12:00:00";

int Seconds(const wire::RebootPloy &ploy, const char *now)
{
    const wire::RebootPloy valid = ValidRebootPloy(ploy);
    const QDateTime time = QDateTime::fromString(now, Qt::ISODate);
    const auto days = DaysToReboot(valid, time);
    return days ? SecondsToReboot(valid, time, *days) : kStopped;
}

} // namespace

TEST(RebootPloy, SecondsToWait)
{
    struct Row {
        std::uint32_t mode, days, mask; // mode 0: every `days` days, 1: on the weekdays of the mask
        std::uint8_t hour, minute, second;
        const char *now;
        int expected;
    };
    const Row rows[] = {
        {0, 1, 0, 13, 0, 0, kSaturdayNoon, kHour},
        {0, 1, 0, 11, 0, 0, kSaturdayNoon, kDay - kHour},
        {0, 1, 0, 12, 0, 0, kSaturdayNoon, kDay},
        {0, 1, 0, 12, 0, 1, kSaturdayNoon, 1},
        {0, 3, 0, 13, 0, 0, kSaturdayNoon, 2 * kDay + kHour},
        {0, 10, 0, 13, 0, 0, kSaturdayNoon, 2 * kDay + kHour}, // modulo a week
        {0, 7, 0, 12, 0, 0, kSaturdayNoon, 0},
        {0, 62, 0, 11, 0, 0, kSaturdayNoon, 6 * kDay - kHour},
        {0, 63, 0, 13, 0, 0, kSaturdayNoon, kHour}, // out of range counts as 1
        {0, 0, 0, 13, 0, 0, kSaturdayNoon, kHour},
        {2, 1, kMonday, 13, 0, 0, kSaturdayNoon, kHour}, // an unknown mode is "every N days"
        {1, 1, kSaturday, 13, 30, 15, kSaturdayNoon, kHour + 1815},
        {1, 1, kSaturday, 12, 0, 0, kSaturdayNoon, 0},
        {1, 1, kSaturday, 11, 0, 0, kSaturdayNoon, 7 * kDay - kHour},
        {1, 1, kMonday, 13, 0, 0, kSaturdayNoon, 2 * kDay + kHour},
        {1, 1, kMonday, 11, 0, 0, kSaturdayNoon, 2 * kDay - kHour},
        {1, 1, kSunday, 11, 0, 0, kSaturdayNoon, kDay - kHour},
        {1, 1, kSunday, 11, 0, 0, kSundayNoon, 7 * kDay - kHour},
        {1, 1, kSunday, 13, 0, 0, kSundayNoon, kHour},
        {1, 1, kMonday, 11, 0, 0, kSundayNoon, kDay - kHour},
        {1, 1, kMonday, 13, 0, 0, kSundayNoon, kDay + kHour},
        {1, 1, kSaturday, 11, 0, 0, kSundayNoon, 6 * kDay - kHour},
        {1, 1, kSaturday, 13, 0, 0, kSundayNoon, 6 * kDay + kHour},
        {1, 1, kSunday, 11, 0, 0, kMondayNoon, 6 * kDay - kHour},
        {1, 1, kMonday | kWednesday, 11, 0, 0, kMondayNoon, 2 * kDay - kHour},
        {1, 1, kMonday | kWednesday, 13, 0, 0, kMondayNoon, kHour},
        {1, 1, 254, 11, 0, 0, kSaturdayNoon, kDay - kHour},
        {1, 1, 0, 13, 0, 0, kSaturdayNoon, kStopped},
        {1, 1, 1, 13, 0, 0, kSaturdayNoon, kStopped}, // bit 0 is no weekday
        {1, 1, 256 + 254, 13, 0, 0, kSaturdayNoon, kStopped},
    };
    for (const Row &row : rows) {
        wire::RebootPloy ploy{};
        ploy.mode = row.mode;
        ploy.days = row.days;
        ploy.weekdayMask = row.mask;
        ploy.hour = row.hour;
        ploy.minute = row.minute;
        ploy.second = row.second;
        EXPECT_EQ(Seconds(ploy, row.now), row.expected) << "row " << &row - rows;
    }
}

TEST(RebootPloy, OffsetsBeyondADayCountAsZero)
{
    for (const int offset : {-32768, -1441, -1440, 0, 1440, 1441, 32767}) {
        wire::RebootPloy ploy{};
        ploy.minuteOffset = static_cast<std::int16_t>(offset);
        EXPECT_EQ(ValidRebootPloy(ploy).minuteOffset, std::abs(offset) > 1440 ? 0 : offset);
    }
}

TEST(RebootPloy, AFullTickTableLosesNoReboot)
{
    const TickFunction other = [] {};
    for (int slot = 0; slot < kTickSlots; ++slot)
        InsertToTick(other);
    const std::string enabled(1, 1);
    const std::string disabled(1, 0);
    const std::string offsetAndTime(8, 0);
    const std::string mode(4, 0);
    const std::string days("\2\0\0\0", 4);
    const std::string weekdayMask(4, 0);
    const std::string everyTwoDays = offsetAndTime + mode + days + weekdayMask;
    WriteTestFile(g_rebootPloy, enabled + everyTwoDays);
    ReloadRebootPloy();
    EXPECT_EQ(SlotsInTick(RebootTimer), 0);
    RemoveFromTick(other);
    CallTickFunctions();
    EXPECT_EQ(SlotsInTick(RebootTimer), 1);
    RemoveFromTick(other); // room for a second one
    ReloadRebootPloy();
    EXPECT_EQ(SlotsInTick(RebootTimer), 1) << "once";

    WriteTestFile(g_rebootPloy, disabled + everyTwoDays);
    ReloadRebootPloy();
    EXPECT_EQ(SlotsInTick(RebootTimer), 0);
    for (int slot = 0; slot < kTickSlots; ++slot)
        RemoveFromTick(other);
    RemoveTestFile(g_rebootPloy);
}
