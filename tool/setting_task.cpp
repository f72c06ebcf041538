// SPDX-License-Identifier: MIT
#include "setting_task.h"

#include "board_tasks.h"
#include "unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>
#include <utility>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{30'000}; // storing a file syncs the board's disks

} // namespace

std::shared_ptr<SettingArguments> AddSettingArguments(CLI::App &command)
{
    auto arguments = std::make_shared<SettingArguments>();
    command.add_option("BOARD", arguments->boards, "address, identifier, name or MAC; several are possible")
        ->required()
        ->type_name("");
    command.add_flag("--via-session", arguments->viaSession,
                     "through a session of the main port in the place of port 8879");
    return arguments;
}

ExitStatus RunSettingTask(ToolContext &context, const SettingArguments &arguments, const SettingTask &task)
{
    const SettingDoor door = arguments.viaSession ? SettingDoor::kSession : SettingDoor::kPort;
    const auto run = [&](const Board &board) -> nlohmann::json {
        nlohmann::json result = {{"board", BoardLabel(board)}};
        if (context.options.dryRun && !task.plan.empty()) {
            result["dryRun"] = true;
            result["plan"] = task.plan;
            return result;
        }
        SettingClient client(board, context.options.interface, context.Timeout(kAnswerPatience), door);
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

void RequireOneBoard(const SettingArguments &arguments, const std::string &what)
{
    if (arguments.boards.size() != 1)
        throw ToolError(ExitStatus::kUsage, what + " is read from one board only");
}

std::vector<std::byte> ReadLocalFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw SystemError("cannot open '" + path + "'", errno);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    if (file.bad())
        throw SystemError("cannot read '" + path + "'", errno);
    const wire::Bytes bytes = wire::BytesAt(content.data(), content.size());
    return {bytes.begin(), bytes.end()};
}

void WriteLocalFile(const std::string &path, wire::Bytes content)
{
    const std::string neighbour = path + ".part";
    std::ofstream file(neighbour, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(content.data()), static_cast<std::streamsize>(content.size()));
    file.close();
    if (file && std::rename(neighbour.c_str(), path.c_str()) == 0)
        return;
    const int error = errno;
    unlink(neighbour.c_str());
    throw SystemError("cannot write '" + path + "'", error);
}

VerbAction DefineSubVerbs(CLI::App &command, const std::vector<SubVerb> &verbs)
{
    std::vector<std::pair<CLI::App *, VerbAction>> actions;
    command.require_subcommand(1);
    command.get_formatter()->label("SUBCOMMAND", "ACTION");
    for (const SubVerb &verb : verbs) {
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

VerbAction DefineOnOff(CLI::App &command, const char *what, std::function<SettingTask(bool on)> make)
{
    const auto state = std::make_shared<std::string>();
    command.add_option("STATE", *state, what)->required()->check(CLI::IsMember({"on", "off"}))->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) { return RunSettingTask(context, *arguments, make(*state == "on")); };
}

} // namespace ledboard
