// SPDX-License-Identifier: MIT
#include "device_verbs.h"

#include "setting_task.h"
#include "text.h"

#include <fmt/format.h>

#include <cctype>
#include <ctime>

namespace ledboard
{

namespace
{

constexpr std::size_t kLongestName = 249;
constexpr std::size_t kIdentityLength = 13;

std::string TimeText(std::int64_t milliseconds)
{
    return FormatUtc(std::chrono::system_clock::time_point(std::chrono::milliseconds(milliseconds)));
}

std::int64_t Now()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

// Local time of this PC unless it ends in Z; seconds may be left out. Throws ToolError(kUsage).
std::int64_t ParseTime(const std::string &text)
{
    for (const char *const format :
         {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M"}) {
        std::tm time{};
        const char *const rest = strptime(text.c_str(), format, &time);
        if (rest == nullptr || (*rest != '\0' && std::string_view(rest) != "Z"))
            continue;
        time.tm_isdst = -1;
        return static_cast<std::int64_t>(*rest == '\0' ? mktime(&time) : timegm(&time)) * 1000;
    }
    throw ToolError(ExitStatus::kUsage,
                    "'" + text + "' is no time; write 2026-05-17T08:30:00, with Z for UTC");
}

nlohmann::json ClockJson(SettingClient &client)
{
    const std::int64_t clock = client.BoardClock();
    const std::int64_t ahead = clock - Now();
    client.End();
    return {{"time", TimeText(clock)}, {"aheadMilliseconds", ahead}};
}

std::string ClockText(const nlohmann::json &result)
{
    return fmt::format("{}, {:+.1f} s against this PC", result["time"].get<std::string>(),
                       static_cast<double>(result["aheadMilliseconds"].get<std::int64_t>()) / 1000);
}

// `time` is asked for each board afresh.
SettingTask SetClock(const std::string &plan, std::function<std::int64_t()> time)
{
    const auto set = [time = std::move(time)](SettingClient &client, const Board &) {
        const wire::I64 milliseconds(time());
        client.CommandAcknowledged(wire::kSettingSetClock, wire::BytesOf(milliseconds));
        return ClockJson(client);
    };
    return {plan, set, ClockText};
}

VerbAction DefineClockGet(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        const auto get = [](SettingClient &client, const Board &) { return ClockJson(client); };
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
        const std::int64_t time = ParseTime(*text);
        return RunSettingTask(context, *arguments,
                              SetClock("would set the clock to " + TimeText(time), [time] { return time; }));
    };
}

VerbAction DefineClockSync(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        return RunSettingTask(context, *arguments, SetClock("would set the clock to this PC's", Now));
    };
}

// A command that stores a text, and the board's word that it has handled it.
SettingTask StoreText(wire::SettingCode code, const char *what, const std::string &text)
{
    const auto store = [=](SettingClient &client, const Board &) -> nlohmann::json {
        client.Command(code, wire::BytesAt(text.data(), text.size()));
        client.BoardClock();
        client.End();
        return {{what, ToUtf8(text)}};
    };
    const auto said = [=](const nlohmann::json &) {
        return fmt::format("{} '{}' stored", what, ForTerminal(text));
    };
    return {fmt::format("would store the {} '{}'", what, ForTerminal(text)), store, said};
}

const char *const kDays[] = {"", "mon", "tue", "wed", "thu", "fri", "sat", "sun"};

// "mon,thu" as a mask. Throws ToolError(kUsage).
std::uint32_t ParseDays(const std::string &text)
{
    std::uint32_t mask = 0;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t end = std::min(text.find(',', at), text.size());
        std::string day = text.substr(at, end - at);
        for (char &letter : day)
            letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        std::uint32_t bit = 0;
        for (unsigned index = 1; index < std::size(kDays); ++index)
            bit |= day == kDays[index] ? 1U << index : 0;
        if (bit == 0)
            throw ToolError(ExitStatus::kUsage, "'" + text + "' is no list of days such as mon,thu");
        mask |= bit;
        at = end + 1;
    }
    return mask;
}

std::string DaysText(std::uint32_t mask)
{
    std::string text;
    for (unsigned index = 1; index < std::size(kDays); ++index) {
        if ((mask >> index & 1U) != 0)
            text += (text.empty() ? "" : ",") + std::string(kDays[index]);
    }
    return text.empty() ? "no day" : text;
}

// "HH:MM" or "HH:MM:SS" into the schedule. Throws ToolError(kUsage).
void ParseTimeOfDay(const std::string &text, wire::RebootPloy *ploy)
{
    for (const char *const format : {"%H:%M:%S", "%H:%M"}) {
        std::tm time{};
        const char *const rest = strptime(text.c_str(), format, &time);
        if (rest == nullptr || *rest != '\0' || time.tm_sec > 59)
            continue;
        ploy->hour = static_cast<wire::U8>(time.tm_hour);
        ploy->minute = static_cast<wire::U8>(time.tm_min);
        ploy->second = static_cast<wire::U8>(time.tm_sec);
        return;
    }
    throw ToolError(ExitStatus::kUsage, "'" + text + "' is no time of day such as 04:30");
}

nlohmann::json PloyJson(const wire::RebootPloy &ploy)
{
    nlohmann::json json = {{"enabled", ploy.enabled != 0}};
    json["time"] = fmt::format("{:02}:{:02}:{:02}", ploy.hour, ploy.minute, ploy.second);
    json["minuteOffset"] = std::int16_t{ploy.minuteOffset};
    if (ploy.mode == 1)
        json["on"] = DaysText(ploy.weekdayMask);
    else
        json["everyDays"] = std::uint32_t{ploy.days};
    return json;
}

std::string PloyText(const nlohmann::json &json)
{
    if (!json["enabled"].get<bool>())
        return "no scheduled reboot";
    const std::string time = json["time"].get<std::string>();
    const auto offset = json["minuteOffset"].get<int>();
    const std::string days = json.contains("on")
                                 ? "on " + json["on"].get<std::string>()
                                 : fmt::format("every {} days", json["everyDays"].get<unsigned>());
    return fmt::format("reboots {} at {}{}", days, time,
                       offset == 0 ? "" : fmt::format(" of a clock {:+} minutes from the board's", offset));
}

wire::RebootPloy ReadPloy(SettingClient *client)
{
    client->Command(wire::kSettingReadPloy);
    return client->Receive<wire::RebootPloyReply>().ploy;
}

// Stores what `change` makes of the schedule, and reads it back.
SettingTask ChangePloy(const std::string &plan, std::function<void(wire::RebootPloy *)> change)
{
    const auto run = [change = std::move(change)](SettingClient &client, const Board &) {
        wire::RebootPloy ploy = ReadPloy(&client);
        change(&ploy);
        client.CommandAcknowledged(wire::kSettingWritePloy, wire::BytesOf(ploy));
        const wire::RebootPloy stored = ReadPloy(&client);
        client.End();
        if (std::memcmp(&stored, &ploy, sizeof ploy) != 0)
            throw ToolError(ExitStatus::kVerification, "the board did not store the schedule");
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
        return RunSettingTask(
            context, *arguments,
            ChangePloy("would stop the scheduled reboot", [](auto *ploy) { ploy->enabled = 0; }));
    };
}

struct ScheduleArguments {
    std::string days, filler, at, time;
    int offset = 0;
};

void AddTimeOfDay(CLI::App &command, ScheduleArguments *schedule)
{
    command.add_option("at", schedule->at, "the word 'at'")
        ->required()
        ->check(CLI::IsMember({"at"}))
        ->type_name("");
    command.add_option("HH:MM", schedule->time, "time of day on the board's clock; seconds are possible")
        ->required()
        ->type_name("");
    command.add_option("--offset", schedule->offset, "minutes that the board adds to its clock first")
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
    command.add_option("N", schedule->days, "1 to 62")->required()->check(CLI::Range(1, 62))->type_name("");
    command.add_option("days", schedule->filler, "the word 'days'")
        ->required()
        ->check(CLI::IsMember({"days", "day"}))
        ->type_name("");
    AddTimeOfDay(command, schedule.get());
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        wire::RebootPloy ploy = MakePloy(*schedule);
        ploy.days = static_cast<std::uint32_t>(std::stoul(schedule->days));
        if (ploy.days > 7U)
            context.output.Warn("a board counts modulo one week: it waits " + std::to_string(ploy.days % 7U) +
                                " days in the place of " + schedule->days);
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
                                    {"sync", "Set it to this PC's.", DefineClockSync}});
}

VerbAction DefineName(CLI::App &command)
{
    const auto text = std::make_shared<std::string>();
    command.add_option("TEXT", *text, "the new name, at most 249 bytes")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        if (text->empty() || text->size() > kLongestName)
            throw ToolError(ExitStatus::kUsage, "a name has 1 to 249 bytes");
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
            throw ToolError(ExitStatus::kUsage, "an identifier has 13 characters");
        RequireOneBoard(*arguments, "an identifier is its board's own and");
        return RunSettingTask(context, *arguments, StoreText(wire::kSettingIdentity, "identifier", *text));
    };
}

VerbAction DefineRebootSchedule(CLI::App &command)
{
    return DefineSubVerbs(command, {{"show", "Show the schedule.", DefineScheduleShow},
                                    {"off", "No scheduled reboot any more.", DefineScheduleOff},
                                    {"every", "every N days at HH:MM", DefineScheduleEvery},
                                    {"on", "on mon,thu at HH:MM", DefineScheduleOn}});
}

} // namespace ledboard
