// SPDX-License-Identifier: MIT
#include "common/address.h"
#include "common/pc/text.h"
#include "discovery/board_finder.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

namespace ledboard
{

namespace
{

constexpr std::size_t kNameColumns = 32; // a name may be 249 bytes long; info shows all of it

std::string BoardTable(const std::vector<Board> &boards, const Output &output)
{
    const auto orDash = [](const std::string &text) { return text.empty() ? "-" : text; };
    Table table({"ID", "NAME", "ADDRESS", "MAC", "MODE", "PLAYER", "FPGA", "SCREEN", "USB ROOM"});
    for (const Board &board : boards)
        table.Add({orDash(BoardId(board.record)), orDash(Shortened(BoardName(board.record), kNameColumns)),
                   Dotted(BoardAddress(board)), orDash(BoardMac(board.record)), FormatMode(board),
                   FormatVersion(board.record.plexa, 4), FormatVersion(board.record.fpga, 3),
                   FormatScreen(board.record), FormatUsbRoom(board.record)});
    return table.Render(output);
}

ExitStatus Discover(ToolContext &context)
{
    DiscoverySocket socket(context.options.interface);
    const std::vector<BoardSelector> everyBoard;
    const std::vector<Board> boards = BoardFinder(socket, everyBoard).Search(context.Timeout(kSearchTime));
    if (context.output.Json()) {
        nlohmann::json list = nlohmann::json::array();
        for (const Board &board : boards)
            list.push_back(BoardJson(board));
        context.output.PrintJson({{"boards", list}});
    } else if (!boards.empty()) {
        context.output.Print(BoardTable(boards, context.output));
    }
    context.output.Note(boards.empty()       ? "no board answered"
                        : boards.size() == 1 ? "1 board"
                                             : fmt::format("{} boards", boards.size()));
    return ExitStatus::kDone;
}

} // namespace

VerbAction DefineDiscover(CLI::App &command)
{
    command.footer(
        "Searches three times on every network interface that is up and shows each board once, also\n"
        "boards whose address is not in this PC's network. If no board answers, that is not an error.\n"
        "MODE \"fixed, port N\": the board also listens on its custom port N. \"?\": not reported.\n"
        "USB ROOM \"-\": the board has no USB disk that it could use.\n"
        "Nothing on a board is changed.\n");
    return Discover;
}

} // namespace ledboard
