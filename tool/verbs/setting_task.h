// SPDX-License-Identifier: MIT
// tool/verbs/setting_task.h: what the verbs of the setting service share: their arguments, one client per
// board, files of this PC.
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
    std::string plan; // for --dry-run: "would …"; empty when nothing on a board is changed
    std::function<nlohmann::json(SettingClient &client, const Board &board)> run;
    // The result as a person reads it, without the board's name; several lines begin with a newline.
    std::function<std::string(const nlohmann::json &result)> text;
};

// Adds BOARD... and --via-session; or only the latter.
std::shared_ptr<SettingArguments> AddSettingArguments(CLI::App &command);
void AddViaSession(CLI::App &command, SettingArguments &arguments);

ExitStatus RunSettingTask(ToolContext &context, const SettingArguments &arguments, const SettingTask &task);

// Throws VerbError(kUsage) with `why` when there are several.
void RequireOneBoard(const SettingArguments &arguments, const char *why);

// Throw VerbError. A file is replaced as a whole: the old one stays when the disk is full.
std::vector<std::byte> ReadLocalFile(const std::string &path);
void WriteLocalFile(const std::string &path, wire::Bytes content);

// Defines the sub-verbs; the action runs the one that the command line names.
VerbAction DefineSubVerbs(CLI::App &command, const std::vector<Verb> &verbs);

// An "on" or "off" in front of BOARD....
VerbAction DefineOnOff(CLI::App &command, const char *what, const std::function<SettingTask(bool on)> &make);

} // namespace ledboard
