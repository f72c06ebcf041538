// SPDX-License-Identifier: MIT
// tool/verbs/board_tasks.h: finds the boards that a verb names and runs one task on each of them.
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
    // The result for people, with a newline at its end.
    std::function<std::string(const Board &board, const nlohmann::json &result)> text;
};

// Adds the positional argument BOARD..., one or more.
void AddBoardNames(CLI::App &command, std::vector<std::string> &names);

// Searches once for all of `names` and runs the task on up to --jobs boards at the same time; a board that is
// named twice gets it once. Prints the results in the order of the identifiers. In JSON a single name gives
// its result; several give one object whose array "boards" has a result or an error object for each. Returns
// the status of all boards if it is the same for all, kPartly if some are done, else kFailed. Throws
// VerbError, also that of a single board.
ExitStatus RunOnBoards(ToolContext &context, const std::vector<std::string> &names, const BoardTask &task);

} // namespace ledboard
