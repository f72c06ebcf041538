// SPDX-License-Identifier: MIT
// tool/verbs/setting_task.h: what the verbs of the setting service share: arguments, one client per board,
// files of this PC.
#pragma once

#include "sessions/setting_client.h"
#include "verbs/verb.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ledboard
{

struct SettingArguments {
    std::vector<std::string> boards;
    bool viaSession = false;
};

struct SettingTask {
    std::string plan; // for --dry-run: "would …"; empty if the task changes nothing on a board
    std::function<nlohmann::json(SettingClient &client, const Board &board)> run;
    // The result for people, without the board's name; a result of several lines begins with a newline.
    std::function<std::string(const nlohmann::json &result)> text;
};

// The first adds BOARD... and --via-session, the second only --via-session.
std::shared_ptr<SettingArguments> AddSettingArguments(CLI::App &command);
void AddViaSession(CLI::App &command, SettingArguments &arguments);

ExitStatus RunSettingTask(ToolContext &context, const SettingArguments &arguments, const SettingTask &task);

// Throws VerbError(kUsage) with the message `why` if several boards are named.
void RequireOneBoard(const SettingArguments &arguments, const char *why);

// Both throw VerbError. A file is replaced as a whole: the old one stays if the new one cannot be written.
std::vector<std::byte> ReadLocalFile(const std::string &path);
void WriteLocalFile(const std::string &path, wire::Bytes content);

// Adds the sub-verbs to the command; the returned action runs the one that the command line names.
VerbAction DefineSubVerbs(CLI::App &command, const std::vector<Verb> &verbs);

// Adds STATE ("on" or "off") before BOARD... and runs the task that `make` returns for it.
VerbAction DefineOnOff(CLI::App &command, const char *what, const std::function<SettingTask(bool on)> &make);

} // namespace ledboard
