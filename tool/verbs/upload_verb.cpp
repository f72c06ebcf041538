// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "sessions/upload_session.h"
#include "terminal/progress.h"
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <filesystem>
#include <memory>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{30'000};
constexpr std::chrono::milliseconds kFinishPatience{300'000};

struct UploadArguments {
    std::vector<std::string> words; // BOARD... FOLDER
    bool all = false;
};

// The usage line names the arguments without dots after the last one.
class UsageAsNamed : public CLI::Formatter
{
public:
    std::string make_option_usage(const CLI::Option *option) const override
    {
        return make_option_name(option, true);
    }
};

struct Upload {
    std::string program; // the folder's name
    std::vector<ProgramFile> files;
    bool all;
    bool alone; // one board only, so there may be a bar
};

std::string Files(std::size_t count, const char *what = "file")
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

std::vector<std::string> VideoNames(const Upload &upload)
{
    std::vector<std::string> names;
    for (const ProgramFile &file : upload.files) {
        if (file.IsVideo() && !upload.all)
            names.push_back(file.name);
    }
    return names;
}

nlohmann::json FilesJson(const std::vector<ProgramFile> &files)
{
    nlohmann::json names = nlohmann::json::array();
    for (const ProgramFile &file : files)
        names.push_back(ToUtf8(file.name));
    return {{"files", names}, {"bytes", TotalSize(files)}};
}

// What the board would be asked and sent. Opens no session.
nlohmann::json Plan(const Board &board, const Upload &upload)
{
    nlohmann::json ask = nlohmann::json::array();
    for (const std::string &name : VideoNames(upload))
        ask.push_back(ToUtf8(name));
    return {{"board", BoardLabel(board)}, {"dryRun", true}, {"ask", ask}, {"send", FilesJson(upload.files)}};
}

std::string PlanText(const Board &board, const nlohmann::json &plan)
{
    std::string text = BoardLabel(board) + ":\n";
    for (const nlohmann::json &name : plan["ask"])
        text += fmt::format("  would ask for   {}\n", ForTerminal(name.get<std::string>()));
    for (const nlohmann::json &name : plan["send"]["files"])
        text += fmt::format("  would send      {}\n", ForTerminal(name.get<std::string>()));
    return text + fmt::format("  {}, {}, less the videos that the board has\n",
                              Files(plan["send"]["files"].size()),
                              FormatBytes(plan["send"]["bytes"].get<std::uint64_t>()));
}

// Moves the files whose names are in `found` out of `files`.
std::vector<ProgramFile> TakeSpared(std::vector<ProgramFile> *files, const std::set<std::string> &found)
{
    std::vector<ProgramFile> spared;
    std::vector<ProgramFile> rest;
    for (ProgramFile &file : *files)
        (file.IsVideo() && found.count(file.name) > 0 ? spared : rest).push_back(std::move(file));
    *files = std::move(rest);
    return spared;
}

// How far the upload was when it failed, for its message.
struct Stage {
    std::string what = "before the first file";
    bool sending = false;
};

nlohmann::json RunSession(ToolContext &context, UploadSession *session, const Board &board,
                          const Upload &upload, Stage *stage)
{
    session->Open(board, context.options.interface, upload.program, upload.files.size());
    const auto start = Clock::now();
    std::vector<ProgramFile> files = upload.files;
    const std::set<std::string> found = session->CheckVideos(VideoNames(upload));
    const std::vector<ProgramFile> spared = TakeSpared(&files, found);
    session->RemoveOtherVideos(); // now, to make room for the new files
    {
        Progress progress(context.output, BoardLabel(board), "upload", TotalSize(files), upload.alone);
        for (const ProgramFile &file : files) {
            *stage = {"while '" + ForTerminal(file.name) + "' was sent", true};
            session->SendFile(file, [&](std::uint64_t bytes) { progress.Advance(bytes); });
        }
    }
    *stage = {"while it was storing the program", true};
    session->Finish();
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    return {{"board", BoardLabel(board)},
            {"sent", FilesJson(files)},
            {"sparedByName", FilesJson(spared)},
            {"seconds", elapsed.count()}};
}

nlohmann::json RunUpload(ToolContext &context, const Board &board, const Upload &upload)
{
    // A login already begins to change the board, so a plan has to do without one.
    if (context.options.dryRun)
        return Plan(board, upload);
    UploadSession session({context.Timeout(kAnswerPatience), context.Timeout(kFinishPatience)});
    Stage stage;
    try {
        return RunSession(context, &session, board, upload, &stage);
    } catch (const VerbError &error) {
        std::string message = error.what();
        if (session.State() != BoardState::kUntouched)
            message += ", " + stage.what;
        if (stage.sending && error.Status() == ExitStatus::kFailed)
            message += " (its disk may be full or gone)";
        throw VerbError(error.Status(), message + "; " + DescribeState(session.State()));
    }
}

std::string ResultText(const Board &board, const nlohmann::json &result)
{
    if (result.contains("dryRun"))
        return PlanText(board, result);
    const auto bytes = result["sent"]["bytes"].get<std::uint64_t>();
    const auto seconds = result["seconds"].get<double>();
    const auto rate = static_cast<std::uint64_t>(static_cast<double>(bytes) / std::max(seconds, 0.001));
    const nlohmann::json &spared = result["sparedByName"];
    return fmt::format("{}: sent {}, {}, in {:.1f} s ({}/s); spared by name {}, {}\n", BoardLabel(board),
                       Files(result["sent"]["files"].size()), FormatBytes(bytes), seconds, FormatBytes(rate),
                       Files(spared["files"].size(), "video"),
                       FormatBytes(spared["bytes"].get<std::uint64_t>()));
}

ExitStatus RunVerb(ToolContext &context, const UploadArguments &arguments)
{
    const std::string &folder = arguments.words.back();
    const std::vector<std::string> boards(arguments.words.begin(), arguments.words.end() - 1);
    const Upload upload = {std::filesystem::weakly_canonical(folder).filename().native(),
                           ReadProgramFolder(folder), arguments.all, boards.size() == 1};
    const BoardTask task = {[&](const Board &board) { return RunUpload(context, board, upload); },
                            ResultText};
    return RunOnBoards(context, boards, task);
}

} // namespace

VerbAction DefineUpload(CLI::App &command)
{
    const auto arguments = std::make_shared<UploadArguments>();
    command
        .add_option("BOARD... FOLDER", arguments->words,
                    "boards by address, identifier, name or MAC; then the folder with all files of the "
                    "program")
        ->required()
        ->expected(2, CLI::detail::expected_max_vector_size)
        ->option_text(" ");
    command.formatter(std::make_shared<UsageAsNamed>());
    command.add_flag("-a,--all", arguments->all, "also send the videos that the board already has");
    command.footer(
        "The folder replaces the board's program. Videos (names with \".mp4\", not in sub-folders) that\n"
        "the board already has are not sent: it compares names, not contents. The boot picture is removed.\n"
        "An upload that is not completed leaves the board without a program.\n"
        "--timeout is also the limit for every answer (30 s; 5 min for storing the program).");
    return [arguments](ToolContext &context) { return RunVerb(context, *arguments); };
}

} // namespace ledboard
