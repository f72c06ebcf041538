// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "sessions/settings_file.h"
#include "verbs/setting_task.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <algorithm>

namespace ledboard
{

namespace
{

constexpr char kBoardsFile[] = "what the board has stored";

using Assignments = std::vector<std::pair<std::uint8_t, std::uint32_t>>;

BoardSettings Read(SettingClient *client)
{
    auto settings = ReadSettings(client);
    if (!settings)
        throw VerbError(ExitStatus::kFailed, "the board has no settings file");
    return std::move(*settings);
}

std::string Plural(std::size_t count, const char *what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

VerbAction DefineShow(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        const auto show = [](SettingClient &client, const Board &) {
            const BoardSettings settings = Read(&client);
            const SettingsFile file = ParseSettings(settings.file, kBoardsFile);
            nlohmann::json result = SettingsJson(file);
            result["brightness"] = settings.brightness;
            return result;
        };
        const auto text = [&context](const nlohmann::json &result) {
            SettingsFile file;
            for (const nlohmann::json &row : result["records"])
                file.records.push_back(
                    {.id = row["id"].get<std::uint32_t>(), .value = row["value"].get<std::uint32_t>()});
            Table table({"ID", "NAME", "VALUE"});
            for (const wire::SettingRecord &record : file.records)
                table.Add({std::to_string(record.id), SettingName(record.id), SettingText(record, file)});
            const auto tail = result["tailBytes"].get<std::size_t>();
            return "\n" + table.Render(context.output) +
                   fmt::format("brightness {} %{}", result["brightness"].get<unsigned>(),
                               tail == 0 ? "" : fmt::format(", {} after the records", Plural(tail, "byte")));
        };
        return RunSettingTask(context, *arguments, {"", show, text});
    };
}

VerbAction DefineSave(CLI::App &command)
{
    const auto path = std::make_shared<std::string>();
    command.add_option("FILE", *path, "where to store it on this PC")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        RequireOneBoard(*arguments, "a file takes the settings of one board only");
        const auto save = [&](SettingClient &client, const Board &) -> nlohmann::json {
            const BoardSettings settings = Read(&client);
            WriteLocalFile(*path, settings.file);
            return {{"file", ToUtf8(*path)}, {"bytes", settings.file.size()}};
        };
        const auto text = [](const nlohmann::json &result) {
            return fmt::format("{} saved as {}", Plural(result["bytes"].get<std::size_t>(), "byte"),
                               ForTerminal(result["file"].get<std::string>()));
        };
        return RunSettingTask(context, *arguments, {"", save, text});
    };
}

// Compares every byte. With `keepTail` the end of a longer old file may follow.
void VerifyLoad(const std::vector<std::byte> &sent, const std::vector<std::byte> &stored, bool keepTail)
{
    const bool length = keepTail ? stored.size() >= sent.size() : stored.size() == sent.size();
    if (!length || !std::equal(sent.begin(), sent.end(), stored.begin()))
        throw VerbError(ExitStatus::kVerification, "the board's file differs from what was sent");
}

VerbAction DefineLoad(CLI::App &command)
{
    const auto path = std::make_shared<std::string>();
    const auto keepTail = std::make_shared<bool>(false);
    command.add_option("FILE", *path, "settings file on this PC")->required()->type_name("");
    command.add_flag("--keep-tail", *keepTail, "overwrite the old file; if that is longer, its end stays");
    const auto arguments = AddSettingArguments(command);
    command.footer(
        "The board stores the file and sends it to its FPGA; then the file is read back and compared.");
    return [=](ToolContext &context) {
        const std::vector<std::byte> file = ReadLocalFile(*path);
        const SettingsFile settings = ParseSettings(file, "'" + *path + "'");
        const auto load = [&](SettingClient &client, const Board &) -> nlohmann::json {
            client.Command(wire::kSettingStart);
            client.Data(file);
            client.Command(*keepTail ? wire::kSettingCopyOver : wire::kSettingSave);
            client.Command(wire::kSettingSendToFpga);
            VerifyLoad(file, Read(&client).file, *keepTail);
            return {{"records", settings.records.size()}, {"screen", ScreenText(settings)}};
        };
        const auto text = [](const nlohmann::json &result) {
            return fmt::format("{} stored and sent to the FPGA, screen {}",
                               Plural(result["records"].get<std::size_t>(), "parameter"),
                               result["screen"].get<std::string>());
        };
        const std::string plan =
            fmt::format("would load {}, screen {}", Plural(settings.records.size(), "parameter"),
                        ScreenText(settings));
        return RunSettingTask(context, *arguments, {plan, load, text});
    };
}

// Reads the words before the first one without "="; the others name boards. Throws VerbError(kUsage).
Assignments TakeAssignments(const std::vector<std::string> &words, std::vector<std::string> *boards)
{
    Assignments assignments;
    auto word = words.begin();
    for (; word != words.end() && word->find('=') != std::string::npos; ++word) {
        const auto assignment = ParseAssignment(*word);
        for (const auto &earlier : assignments) {
            if (earlier.first == assignment.first)
                throw VerbError(ExitStatus::kUsage,
                                fmt::format("parameter {} is given twice", earlier.first));
        }
        assignments.push_back(assignment);
    }
    boards->assign(word, words.end());
    if (assignments.empty() || boards->empty())
        throw VerbError(ExitStatus::kUsage, "it takes ID=VALUE... and then BOARD...");
    return assignments;
}

nlohmann::json Set(SettingClient &client, const Assignments &assignments)
{
    // Frames between these two commands are stored in the board's file as well.
    client.Command(wire::kSettingRtsOpen);
    for (const auto &[id, value] : assignments)
        client.Frame(id, value);
    client.Command(wire::kSettingRtsClose);
    const auto stored = ReadSettings(&client);
    const SettingsFile file = stored ? ParseSettings(stored->file, kBoardsFile) : SettingsFile{};
    nlohmann::json set = nlohmann::json::array();
    for (const auto &[id, value] : assignments) {
        const auto held = FindValue(file, id);
        if (held && *held != value)
            throw VerbError(ExitStatus::kVerification,
                            fmt::format("the board holds {} as parameter {}, not {}", *held, id, value));
        set.push_back({{"id", id}, {"value", value}, {"stored", held.has_value()}});
        if (*SettingName(id) != '\0')
            set.back()["name"] = SettingName(id);
    }
    return {{"set", set}};
}

std::string SetText(const nlohmann::json &result)
{
    std::string text;
    for (const nlohmann::json &row : result["set"]) {
        const auto id = row["id"].get<std::uint32_t>();
        text += text.empty() ? "" : ", ";
        text += *SettingName(id) == '\0' ? std::to_string(id) : std::string(SettingName(id));
        text +=
            fmt::format(" = {}{}", SettingText({.id = id, .value = row["value"].get<std::uint32_t>()}, {}),
                        row["stored"].get<bool>() ? "" : " (FPGA only: not in the board's file)");
    }
    return text;
}

std::string NamesText()
{
    constexpr int kColumns = 4;
    std::string text;
    int column = 0;
    for (std::uint32_t id = 0; id <= 0xFF; ++id) {
        if (*SettingName(id) == '\0')
            continue;
        const char *const before = column % kColumns == 0 ? "  " : "";
        const char *const after = ++column % kColumns == 0 ? "\n" : "";
        text += fmt::format("{}{:3} {:15}{}", before, id, SettingName(id), after);
    }
    return column % kColumns == 0 ? text : text + "\n";
}

VerbAction DefineSet(CLI::App &command)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    const auto arguments = std::make_shared<SettingArguments>();
    command
        .add_option("ID=VALUE... BOARD", *words,
                    "parameters by name or number, the screen size as WIDTHxHEIGHT; then the boards")
        ->required()
        ->expected(2, CLI::detail::expected_max_vector_size)
        ->type_name("");
    AddViaSession(command, *arguments);
    command.footer("Names:\n" + NamesText() +
                   "A parameter that is not in the board's file reaches the FPGA only. A new screen size\n"
                   "also changes max-luminance, which limits the luminance.");
    return [=](ToolContext &context) {
        const Assignments assignments = TakeAssignments(*words, &arguments->boards);
        const auto set = [&](SettingClient &client, const Board &) { return Set(client, assignments); };
        const std::string plan = "would set " + Plural(assignments.size(), "parameter");
        return RunSettingTask(context, *arguments, {plan, set, SetText});
    };
}

} // namespace

VerbAction DefineSettings(CLI::App &command)
{
    return DefineSubVerbs(command, {{"show", "Show all parameters.", DefineShow},
                                    {"save", "Save them as a file on this PC.", DefineSave},
                                    {"load", "Give the board a file.", DefineLoad},
                                    {"set", "Change some of them.", DefineSet}});
}

} // namespace ledboard
