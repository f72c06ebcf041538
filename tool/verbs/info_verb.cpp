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
        "A board given by its address is asked directly. So a board behind a router is found too, if it\n"
        "listens on a custom port: ADDRESS:PORT. All others are searched for on the local network.\n"
        "Nothing on a board is changed.\n");
    return [names](ToolContext &context) {
        const BoardTask task = {BoardJson, [](const Board &board, const nlohmann::json &) {
                                    return DescribeBoard(board);
                                }};
        return RunOnBoards(context, *names, task);
    };
}

} // namespace ledboard
