// SPDX-License-Identifier: MIT
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <memory>

namespace ledboard
{

VerbAction DefineInfo(CLI::App &command)
{
    const auto names = std::make_shared<std::vector<std::string>>();
    AddBoardNames(command, *names);
    command.footer(
        "An address is asked directly, so a board is also found behind a router if it listens on a\n"
        "custom port: ADDRESS:PORT. Everything else is looked for on the local network.\n"
        "Nothing on a board is changed.\n");
    return [names](ToolContext &context) {
        const BoardTask task = {BoardJson, [](const Board &board, const nlohmann::json &) {
                                    return DescribeBoard(board);
                                }};
        return RunOnBoards(context, *names, task);
    };
}

} // namespace ledboard
