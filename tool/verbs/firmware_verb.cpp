// SPDX-License-Identifier: MIT
#include "discovery/board_finder.h"
#include "sessions/firmware_archive.h"
#include "sessions/firmware_session.h"
#include "terminal/confirm.h"
#include "terminal/progress.h"
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <memory>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{30'000};
constexpr std::chrono::milliseconds kInstallPatience{300'000}; // unpacking, installing and booting
constexpr std::chrono::milliseconds kLookPeriod{1'000};

struct FirmwareArguments {
    std::vector<std::string> names;
    std::string file;
};

nlohmann::json VersionsJson(const FirmwareVersions &versions)
{
    const auto version = [](std::int32_t value, int numbers) -> nlohmann::json {
        if (value == 0)
            return nullptr;
        return FormatVersion(value, numbers);
    };
    return {{"playerVersion", version(versions.player, 4)}, {"fpgaVersion", version(versions.fpga, 3)}};
}

std::string VersionsText(const nlohmann::json &versions)
{
    const auto text = [&](const char *key) {
        return versions[key].is_string() ? versions[key].get<std::string>() : "-";
    };
    return "player " + text("playerVersion") + ", FPGA " + text("fpgaVersion");
}

nlohmann::json AskVersions(ToolContext &context, const Board &board)
{
    FirmwareSession session(board, context.options.interface, context.Timeout(kAnswerPatience));
    nlohmann::json result = VersionsJson(session.AskVersions());
    result["board"] = BoardLabel(board);
    return result;
}

nlohmann::json AskResult(ToolContext &context, const Board &board)
{
    FirmwareSession session(board, context.options.interface, context.Timeout(kAnswerPatience));
    const UpgradeState state = session.AskState();
    nlohmann::json result = VersionsJson(state.versions);
    result["board"] = BoardLabel(board);
    result["succeeded"] = state.succeeded;
    return result;
}

// How the board is found after its restart: by its identifier, because its address may have changed; or at
// its old address if it has no identifier or answers only on its custom port.
std::string NameToFindAgain(const Board &board)
{
    const bool askedDirectly = board.source.port != wire::kDiscoveryPort || BoardId(board.record).empty();
    return askedDirectly ? FormatEndpoint(board.source) : BoardId(board.record);
}

// The result of the installation, which the board reports once it is up again.
nlohmann::json AwaitResult(ToolContext &context, const Board &board)
{
    const Clock::time_point deadline = Clock::now() + context.Timeout(kInstallPatience);
    const std::vector<BoardSelector> selectors = {ParseSelector(NameToFindAgain(board))};
    while (Clock::now() < deadline) {
        const Clock::time_point next = Clock::now() + kLookPeriod;
        try {
            DiscoverySocket socket(context.options.interface);
            const std::vector<Board> boards = BoardFinder(socket, selectors).Search(kLookPeriod);
            return AskResult(context, SelectBoard(selectors.front(), boards));
        } catch (const VerbError &error) {
            // Every other error may only mean that the board is not up yet.
            if (error.Status() == ExitStatus::kInterrupted)
                throw;
        }
        WaitFor(-1, 0, next);
    }
    throw VerbError(ExitStatus::kTimeout, "the board did not come back after the installation");
}

nlohmann::json Install(ToolContext &context, const Board &board, const std::string &archive, bool alone)
{
    nlohmann::json before;
    {
        FirmwareSession session(board, context.options.interface, context.Timeout(kAnswerPatience));
        before = VersionsJson(session.AskVersions());
        if (context.options.dryRun)
            return {{"board", BoardLabel(board)},
                    {"dryRun", true},
                    {"bytes", archive.size()},
                    {"before", before}};
        {
            Progress progress(context.output, BoardLabel(board), "firmware", archive.size(), alone);
            session.SendArchive(archive, [&](std::uint64_t bytes) { progress.Advance(bytes); });
        }
        context.output.Note(BoardLabel(board) + ": installing");
        if (!session.Install(context.Timeout(kInstallPatience)))
            throw VerbError(ExitStatus::kFailed,
                            "the board cannot unpack the archive; its firmware is as it was");
    }
    nlohmann::json result = AwaitResult(context, board);
    if (!result["succeeded"])
        throw VerbError(ExitStatus::kFailed, "the board is back and reports that the installation failed");
    result["before"] = before;
    result["bytes"] = archive.size();
    return result;
}

std::string InstallText(const Board &board, const nlohmann::json &result)
{
    const std::string label = BoardLabel(board);
    if (result.contains("dryRun"))
        return fmt::format("{}: would get {}, has {}\n", label, FormatBytes(result["bytes"]),
                           VersionsText(result["before"]));
    return fmt::format("{}: installed; had {}, has {}\n", label, VersionsText(result["before"]),
                       VersionsText(result));
}

ExitStatus RunInstall(ToolContext &context, const FirmwareArguments &arguments)
{
    const std::string archive = ReadFirmwareArchive(arguments.file);
    std::string boards;
    for (const std::string &name : arguments.names)
        boards += (boards.empty() ? "" : ", ") + name;
    if (!context.options.dryRun)
        Confirm(context.output, context.options.yes,
                "replace the firmware of " + boards + ", which restarts?");
    const bool alone = arguments.names.size() == 1;
    const BoardTask task = {[&](const Board &board) { return Install(context, board, archive, alone); },
                            InstallText};
    return RunOnBoards(context, arguments.names, task);
}

} // namespace

VerbAction DefineFirmware(CLI::App &command)
{
    const auto arguments = std::make_shared<FirmwareArguments>();
    command.require_subcommand(1);
    CLI::App *const version = command.add_subcommand("version", "Show the versions of player and FPGA.");
    AddBoardNames(*version, arguments->names);
    CLI::App *const install =
        command.add_subcommand("install", "Install a firmware archive and wait for its result.");
    install->add_option("FILE", arguments->file, "gzip-compressed tar with \"update.sh\" at its top")
        ->required()
        ->type_name("");
    AddBoardNames(*install, arguments->names);
    CLI::App *const result = command.add_subcommand("result", "Show whether the last installation worked.");
    AddBoardNames(*result, arguments->names);
    command.footer("A board forgets a failed installation once it has reported it.\n"
                   "--timeout is also the limit for every answer (30 s), for unpacking and for the restart "
                   "(5 min each).");
    return [arguments, version, install](ToolContext &context) {
        if (install->parsed())
            return RunInstall(context, *arguments);
        if (version->parsed())
            return RunOnBoards(context, arguments->names,
                               {[&](const Board &board) { return AskVersions(context, board); },
                                [](const Board &board, const nlohmann::json &answer) {
                                    return BoardLabel(board) + ": " + VersionsText(answer) + "\n";
                                }});
        return RunOnBoards(context, arguments->names,
                           {[&](const Board &board) { return AskResult(context, board); },
                            [](const Board &board, const nlohmann::json &answer) {
                                const char *const word = answer["succeeded"] ? "succeeded" : "failed";
                                return fmt::format("{}: the last installation {}; {}\n", BoardLabel(board),
                                                   word, VersionsText(answer));
                            }});
    };
}

} // namespace ledboard
