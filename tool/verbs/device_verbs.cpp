// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "sessions/reboot_schedule.h"
#include "verbs/setting_task.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <cstdlib>
#include <cstring>

namespace ledboard
{

namespace
{

constexpr std::size_t kMaxName = 249;
constexpr std::int64_t kClockTolerance = 3000; // ms; a board's clock is set to whole seconds
constexpr std::size_t kIdentityLength = 13;

std::string TimeText(std::int64_t milliseconds)
{
    return FormatUtc(std::chrono::milliseconds(milliseconds));
}

std::int64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

nlohmann::json ClockJson(std::int64_t clock)
{
    return {{"time", TimeText(clock)}, {"aheadMilliseconds", clock - Now()}};
}

std::string ClockText(const nlohmann::json &result)
{
    const auto ahead = result["aheadMilliseconds"].get<std::int64_t>();
    // In whole tenths, so that a slightly negative value is not shown as "-0.0".
    const std::int64_t tenths = ahead / 100;
    const double seconds = static_cast<double>(tenths) / 10;
    return fmt::format("{}, {:+.1f} s against this PC", result["time"].get<std::string>(), seconds);
}

// `time` is called for each board.
SettingTask SetClock(const std::string &plan, std::function<std::int64_t()> time)
{
    const auto set = [time = std::move(time)](SettingClient &client, const Board &) {
        const std::int64_t wanted = time();
        const auto began = Clock::now();
        client.CommandAcknowledged(wire::kSettingSetClock, wire::BytesOf(wire::I64(wanted)));
        const std::int64_t clock = client.BoardClock();
        client.End();
        const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began);
        if (std::abs(clock - wanted - since.count()) > kClockTolerance)
            throw VerbError(ExitStatus::kVerification, "the board has stayed at " + TimeText(clock));
        return ClockJson(clock);
    };
    return {plan, set, ClockText};
}

VerbAction DefineClockGet(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        const auto get = [](SettingClient &client, const Board &) {
            const std::int64_t clock = client.BoardClock();
            client.End();
            return ClockJson(clock);
        };
        return RunSettingTask(context, *arguments, {"", get, ClockText});
    };
}

VerbAction DefineClockSet(CLI::App &command)
{
    const auto text = std::make_shared<std::string>();
    command.add_option("TIME", *text, "2026-05-17T08:30:00, local time of this PC; with Z at its end UTC")
        ->required()
        ->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        const auto time = ParseTime(*text);
        if (!time)
            throw VerbError(ExitStatus::kUsage,
                            "'" + *text + "' is not a time; write 2026-05-17T08:30:00, with Z for UTC");
        return RunSettingTask(context, *arguments,
                              SetClock("would set the clock to " + TimeText(*time),
                                       [time = *time] { return time; }));
    };
}

VerbAction DefineClockSync(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        return RunSettingTask(context, *arguments, SetClock("would set the clock to this PC's", Now));
    };
}

// Sends a command that stores a text, and waits until the board has handled it.
SettingTask StoreText(wire::SettingCode code, const char *what, const std::string &text)
{
    const auto store = [=](SettingClient &client, const Board &) -> nlohmann::json {
        client.Command(code, wire::BytesAt(text.data(), text.size()));
        // This command has no reply; the clock's reply shows that it has been handled.
        client.BoardClock();
        client.End();
        return {{what, ToUtf8(text)}};
    };
    const auto said = [=](const nlohmann::json &) {
        return fmt::format("{} '{}' stored", what, ForTerminal(text));
    };
    return {fmt::format("would store the {} '{}'", what, ForTerminal(text)), store, said};
}

wire::RebootPloy ReadPloy(SettingClient *client)
{
    client->Command(wire::kSettingReadPloy);
    return client->Receive<wire::RebootPloyReply>().ploy;
}

// Reads the schedule, stores it with `change` applied, and reads it back.
SettingTask ChangePloy(const std::string &plan, std::function<void(wire::RebootPloy *)> change)
{
    const auto run = [change = std::move(change)](SettingClient &client, const Board &) {
        wire::RebootPloy ploy = ReadPloy(&client);
        change(&ploy);
        client.CommandAcknowledged(wire::kSettingWritePloy, wire::BytesOf(ploy));
        const wire::RebootPloy stored = ReadPloy(&client);
        client.End();
        if (std::memcmp(&stored, &ploy, sizeof ploy) != 0)
            throw VerbError(ExitStatus::kVerification, "the board did not store the schedule");
        return PloyJson(stored);
    };
    return {plan, run, PloyText};
}

VerbAction DefineScheduleShow(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        const auto show = [](SettingClient &client, const Board &) {
            const wire::RebootPloy ploy = ReadPloy(&client);
            client.End();
            return PloyJson(ploy);
        };
        return RunSettingTask(context, *arguments, {"", show, PloyText});
    };
}

VerbAction DefineScheduleOff(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        return RunSettingTask(context, *arguments,
                              ChangePloy("would stop the scheduled reboot",
                                         [](auto *ploy) { ploy->enabled = 0; }));
    };
}

struct ScheduleArguments {
    std::string days, filler, at, time;
    int offset = 0;
};

// Adds a literal word of the command line, such as "days"; "day" counts too.
void AddWord(CLI::App &command, const std::string &word, std::string *given)
{
    const auto check = [word](const std::string &text) {
        return text == word || text + "s" == word ? "" : "the word '" + word + "' is missing";
    };
    command.add_option(word, *given, "the word '" + word + "'")->required()->check(check)->type_name("");
}

void AddTimeOfDay(CLI::App &command, ScheduleArguments *schedule)
{
    AddWord(command, "at", &schedule->at);
    command.add_option("HH:MM", schedule->time, "time of day on the board's clock; seconds are possible")
        ->required()
        ->type_name("");
    command
        .add_option("--offset", schedule->offset,
                    "minutes that the board adds to its clock before it compares")
        ->check(CLI::Range(-1440, 1440))
        ->type_name("MINUTES");
}

wire::RebootPloy MakePloy(const ScheduleArguments &schedule)
{
    wire::RebootPloy ploy{};
    ploy.enabled = 1;
    ploy.minuteOffset = static_cast<std::int16_t>(schedule.offset);
    ploy.days = 1U;
    ParseTimeOfDay(schedule.time, &ploy);
    return ploy;
}

ExitStatus StorePloy(ToolContext &context, const SettingArguments &arguments, const wire::RebootPloy &ploy)
{
    return RunSettingTask(context, arguments,
                          ChangePloy("would say: " + PloyText(PloyJson(ploy)),
                                     [ploy](wire::RebootPloy *stored) { *stored = ploy; }));
}

VerbAction DefineScheduleEvery(CLI::App &command)
{
    const auto schedule = std::make_shared<ScheduleArguments>();
    command.add_option("N", schedule->days, "1 to 62; a board counts modulo one week")
        ->required()
        ->type_name("");
    AddWord(command, "days", &schedule->filler);
    AddTimeOfDay(command, schedule.get());
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        wire::RebootPloy ploy = MakePloy(*schedule);
        const auto days = ParseNumber(schedule->days);
        if (!days || *days < 1 || *days > 62)
            throw VerbError(ExitStatus::kUsage, "'" + schedule->days + "' is not a number of days, 1 to 62");
        ploy.days = *days;
        if (DaysBetweenReboots(ploy.days) != ploy.days)
            context.output.Warn(fmt::format("a board counts modulo one week: it reboots every {} days",
                                            DaysBetweenReboots(ploy.days)));
        return StorePloy(context, *arguments, ploy);
    };
}

VerbAction DefineScheduleOn(CLI::App &command)
{
    const auto schedule = std::make_shared<ScheduleArguments>();
    command.add_option("DAYS", schedule->days, "such as mon,thu")->required()->type_name("");
    AddTimeOfDay(command, schedule.get());
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        wire::RebootPloy ploy = MakePloy(*schedule);
        ploy.mode = 1U;
        ploy.weekdayMask = ParseDays(schedule->days);
        return StorePloy(context, *arguments, ploy);
    };
}

} // namespace

VerbAction DefineClock(CLI::App &command)
{
    return DefineSubVerbs(command, {{"get", "Show the board's clock.", DefineClockGet},
                                    {"set", "Set it to a time.", DefineClockSet},
                                    {"sync", "Set it to this PC's clock.", DefineClockSync}});
}

VerbAction DefineName(CLI::App &command)
{
    const auto text = std::make_shared<std::string>();
    command.add_option("TEXT", *text, "the new name, at most 249 bytes")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        if (text->empty() || text->size() > kMaxName)
            throw VerbError(ExitStatus::kUsage, "a name has 1 to 249 bytes");
        return RunSettingTask(context, *arguments, StoreText(wire::kSettingName, "name", *text));
    };
}

VerbAction DefineIdentity(CLI::App &command)
{
    const auto text = std::make_shared<std::string>();
    command.add_option("TEXT", *text, "the new identifier, 13 characters such as C1-0000000001")
        ->required()
        ->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        if (text->size() != kIdentityLength)
            throw VerbError(ExitStatus::kUsage, "an identifier has 13 characters");
        RequireOneBoard(*arguments, "an identifier belongs to one board only");
        return RunSettingTask(context, *arguments, StoreText(wire::kSettingIdentity, "identifier", *text));
    };
}

VerbAction DefineRebootSchedule(CLI::App &command)
{
    return DefineSubVerbs(command,
                          {{"show", "Show the schedule.", DefineScheduleShow},
                           {"off", "Stop scheduled reboots.", DefineScheduleOff},
                           {"every", "Reboot every N days at a time of day.", DefineScheduleEvery},
                           {"on", "Reboot on days of the week, at a time of day.", DefineScheduleOn}});
}

} // namespace ledboard
