// SPDX-License-Identifier: MIT
#include "settings/reboot_ploy.h"

#include "base/files.h"
#include "base/paths.h"
#include "player/server_witch_plexa.h"
#include "settings/setting_copies.h"
#include "state/tick.h"

#include <QDebug>

#include <unistd.h>

#include <cstring>
#include <mutex>

const char *const g_rebootPloy = paths::kRebootPloy;

namespace
{

constexpr int kDaySeconds = 86400;
constexpr int kWeekSeconds = 604800;
constexpr int kDaysOfWeek = 7;

// Guards the countdown and its place in the tick table. It is not held over CopySettingToBoot, which takes
// the setting service's lock, nor over Reboot, which runs a command.
std::mutex s_ployMutex;
std::int32_t s_rebootSeconds = 0; // ticks

int SecondsOfDay(int hour, int minute, int second)
{
    return hour * 3600 + minute * 60 + second;
}

int SecondsOfDay(const QTime &time)
{
    return SecondsOfDay(time.hour(), time.minute(), time.second());
}

bool IsChosen(const wire::RebootPloy &ploy, int day)
{
    return ((ploy.weekdayMask >> (day > kDaysOfWeek ? day - kDaysOfWeek : day)) & 1U) != 0;
}

// The first chosen weekday from today or tomorrow on, which is above 7 if the search passes Sunday. Nothing
// if no weekday is chosen.
std::optional<int> FirstChosen(const wire::RebootPloy &ploy, int today, bool stillToday)
{
    int first = stillToday ? today : today + 1;
    if (first > kDaysOfWeek)
        first = 1;
    for (int day = first; day < first + kDaysOfWeek; ++day) {
        if (IsChosen(ploy, day))
            return day;
    }
    return std::nullopt;
}

// The schedule as the file holds it. Nothing (logged) if it cannot be read.
std::optional<wire::RebootPloy> ReadRebootPloy()
{
    if (access(g_rebootPloy, F_OK) != 0) {
        qDebug() << g_rebootPloy << "not found!";
        return std::nullopt;
    }
    wire::RebootPloy ploy{};
    const auto content = ReadFileStart(g_rebootPloy, sizeof ploy);
    if (!content) {
        qDebug() << g_rebootPloy << ": open fail!";
        return std::nullopt;
    }
    if (content->size() != sizeof ploy) {
        qDebug() << "reboot ploy file size is error.";
        return std::nullopt;
    }
    std::memcpy(&ploy, content->data(), sizeof ploy);
    return ploy;
}

void StopTimer()
{
    const std::lock_guard lock(s_ployMutex);
    RemoveFromTick(RebootTimer);
}

void StartTimer(std::int32_t seconds)
{
    const std::lock_guard lock(s_ployMutex);
    s_rebootSeconds = seconds;
    RemoveFromTick(RebootTimer);
    InsertToTickOrWait(RebootTimer);
}

} // namespace

wire::RebootPloy ValidRebootPloy(wire::RebootPloy ploy)
{
    constexpr int kMaxMinutes = 1440;
    constexpr std::uint32_t kMaxDays = 62;
    constexpr std::uint32_t kMaxMask = 255;
    if (ploy.minuteOffset < -kMaxMinutes || ploy.minuteOffset > kMaxMinutes)
        ploy.minuteOffset = 0;
    if (ploy.mode > 1)
        ploy.mode = 0;
    if (ploy.days == 0 || ploy.days > kMaxDays)
        ploy.days = 1;
    if (ploy.weekdayMask > kMaxMask)
        ploy.weekdayMask = 0;
    return ploy;
}

std::optional<int> DaysToReboot(const wire::RebootPloy &ploy, const QDateTime &now)
{
    const int current = SecondsOfDay(now.time());
    const int due = SecondsOfDay(ploy.hour, ploy.minute, ploy.second);
    if (ploy.mode == 0)
        return static_cast<int>(ploy.days) - (current < due ? 1 : 0);
    const int today = now.date().dayOfWeek();
    const auto chosen = FirstChosen(ploy, today, current <= due);
    if (!chosen)
        return std::nullopt;
    const int days = *chosen - today;
    if (days < 0)
        return (days + kDaysOfWeek) % kDaysOfWeek;
    return days == 0 && due < current ? kDaysOfWeek : days;
}

std::int32_t SecondsToReboot(const wire::RebootPloy &ploy, const QDateTime &now, int days)
{
    const int due = SecondsOfDay(ploy.hour, ploy.minute, ploy.second);
    // QUIRK modulo-a-week: the wait is computed modulo one week, so that "every 10 days" waits three days;
    // the whole interval would be expected.
    const std::int32_t seconds =
        (days * kDaySeconds + kWeekSeconds + due - SecondsOfDay(now.time())) % kWeekSeconds;
    return seconds < 1 ? 0 : seconds;
}

void ReloadRebootPloy()
{
    CopySettingToBoot(false);
    const auto stored = ReadRebootPloy();
    if (!stored)
        return;
    if (stored->enabled == 0) {
        qDebug() << "reboot flag is false, stop reboot timer";
        StopTimer();
        return;
    }
    const wire::RebootPloy ploy = ValidRebootPloy(*stored);
    const QDateTime now = QDateTime::currentDateTime().addSecs(ploy.minuteOffset * 60);
    const auto days = DaysToReboot(ploy, now);
    if (!days) {
        qDebug() << "anyone week been checked, stop reboot timer!";
        StopTimer();
        return;
    }
    const std::int32_t seconds = SecondsToReboot(ploy, now, *days);
    const QTime due(ploy.hour, ploy.minute, ploy.second);
    StartTimer(seconds);
    qDebug() << "dateTime:" << now << ", ployTime:" << due << ", curTime:" << now.time()
             << ", days:" << *days;
    qDebug() << "start reboot timer"
             << ", s_rebootSeconds:" << seconds << " seconds.";
}

void RebootTimer()
{
    {
        const std::lock_guard lock(s_ployMutex);
        if (--s_rebootSeconds > 0)
            return;
        RemoveFromTick(RebootTimer);
    }
    qDebug() << "RebootTimer"
             << " reboot now.";
    Reboot();
}
