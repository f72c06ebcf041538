// SPDX-License-Identifier: MIT
// tool/verbs/board_tasks.h: finds the boards that a verb names and does one thing on each of them.
#pragma once

#include "discovery/board.h"
#include "verbs/verb.h"

#include <functional>
#include <string>
#include <vector>

namespace ledboard
{

struct BoardTask {
    // The work on one board and its result; called from several threads at once. Throws VerbError.
    std::function<nlohmann::json(const Board &board)> run;
    // The result as a person reads it, ending in a newline.
    std::function<std::string(const Board &board, const nlohmann::json &result)> text;
};

// Adds the positional BOARD..., of which one is needed at least.
void AddBoardNames(CLI::App &command, std::vector<std::string> &names);

// Searches once for all of `names`, runs the task on up to --jobs boards at a time, a board named twice once,
// and prints the results in the order of the identifiers. A single name gives its result, or throws; several
// give {"boards": [...]} with an error object in the place of what failed. The status is that of all boards
// if they agree, kPartly if some were done, kFailed otherwise.
ExitStatus RunOnBoards(ToolContext &context, const std::vector<std::string> &names, const BoardTask &task);

} // namespace ledboard
