// SPDX-License-Identifier: MIT
#include "verbs/setting_task.h"

#include "verbs/board_tasks.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{30'000}; // storing a file syncs the board's disks

} // namespace

void AddViaSession(CLI::App &command, SettingArguments &arguments)
{
    command.add_flag("--via-session", arguments.viaSession,
                     "use a session of the main port instead of port 8879");
}

std::shared_ptr<SettingArguments> AddSettingArguments(CLI::App &command)
{
    auto arguments = std::make_shared<SettingArguments>();
    AddBoardNames(command, arguments->boards);
    AddViaSession(command, *arguments);
    return arguments;
}

ExitStatus RunSettingTask(ToolContext &context, const SettingArguments &arguments, const SettingTask &task)
{
    const SettingTransport transport =
        arguments.viaSession ? SettingTransport::kSession : SettingTransport::kPort;
    const auto run = [&](const Board &board) -> nlohmann::json {
        nlohmann::json result = {{"board", BoardLabel(board)}};
        if (context.options.dryRun && !task.plan.empty()) {
            result["dryRun"] = true;
            result["plan"] = task.plan;
            return result;
        }
        SettingClient client(board, context.options.interface, context.Timeout(kAnswerPatience), transport);
        result.update(task.run(client, board));
        return result;
    };
    const auto text = [&](const Board &board, const nlohmann::json &result) {
        const std::string words =
            result.contains("plan") ? result["plan"].get<std::string>() : task.text(result);
        return BoardLabel(board) + (words.starts_with('\n') ? ":" : ": ") + words + "\n";
    };
    return RunOnBoards(context, arguments.boards, {run, text});
}

void RequireOneBoard(const SettingArguments &arguments, const char *why)
{
    if (arguments.boards.size() != 1)
        throw VerbError(ExitStatus::kUsage, why);
}

std::vector<std::byte> ReadLocalFile(const std::string &path)
{
    // An ifstream opens a folder without an error.
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        throw SystemError("cannot read '" + path + "'", EISDIR);
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw SystemError("cannot read '" + path + "'", errno);
    std::ostringstream stream;
    stream << file.rdbuf();
    const std::string content = stream.str();
    const wire::Bytes bytes = wire::BytesAt(content.data(), content.size());
    return {bytes.begin(), bytes.end()};
}

void WriteLocalFile(const std::string &path, wire::Bytes content)
{
    std::error_code ignored;
    const bool whole =
        !std::filesystem::exists(path, ignored) || std::filesystem::is_regular_file(path, ignored);
    const std::string neighbour = whole ? path + ".part" : path; // a device or a pipe is written directly
    std::ofstream file(neighbour, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    file.close();
    if (file && (!whole || std::rename(neighbour.c_str(), path.c_str()) == 0))
        return;
    const int error = errno;
    if (whole)
        unlink(neighbour.c_str());
    throw SystemError("cannot write '" + path + "'", error);
}

VerbAction DefineSubVerbs(CLI::App &command, const std::vector<Verb> &verbs)
{
    std::vector<std::pair<CLI::App *, VerbAction>> actions;
    command.require_subcommand(1);
    command.get_formatter()->label("SUBCOMMAND", "ACTION");
    for (const Verb &verb : verbs) {
        CLI::App *const sub = command.add_subcommand(verb.name, verb.summary)->group("Actions");
        actions.emplace_back(sub, verb.define(*sub));
    }
    return [actions](ToolContext &context) {
        for (const auto &[sub, action] : actions) {
            if (sub->parsed())
                return action(context);
        }
        return ExitStatus::kUsage;
    };
}

VerbAction DefineOnOff(CLI::App &command, const char *what, const std::function<SettingTask(bool on)> &make)
{
    const auto state = std::make_shared<std::string>();
    command.add_option("STATE", *state, what)->required()->check(CLI::IsMember({"on", "off"}))->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) { return RunSettingTask(context, *arguments, make(*state == "on")); };
}

} // namespace ledboard
