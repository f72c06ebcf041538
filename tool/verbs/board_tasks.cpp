// SPDX-License-Identifier: MIT
#include "verbs/board_tasks.h"

#include "common/pc/text.h"
#include "discovery/board_finder.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <map>
#include <thread>

namespace ledboard
{

namespace
{

struct Outcome {
    std::string label; // the name of the board in messages
    const Board *board = nullptr;
    nlohmann::json result;
    std::optional<VerbError> error;
};

// One outcome per board, ordered by BoardKey; then one per name without a board.
std::vector<Outcome> Resolve(const std::vector<BoardSelector> &selectors, const std::vector<Board> &boards)
{
    std::map<std::string, Outcome> resolved;
    std::vector<Outcome> unresolved;
    for (const BoardSelector &selector : selectors) {
        try {
            const Board &board = SelectBoard(selector, boards);
            resolved.emplace(BoardKey(board), Outcome{BoardLabel(board), &board, {}, std::nullopt});
        } catch (const VerbError &error) {
            unresolved.push_back({ToUtf8(selector.text), nullptr, {}, error});
        }
    }
    std::vector<Outcome> outcomes;
    outcomes.reserve(selectors.size());
    for (auto &[key, outcome] : resolved)
        outcomes.push_back(std::move(outcome));
    std::move(unresolved.begin(), unresolved.end(), std::back_inserter(outcomes));
    return outcomes;
}

void RunOne(Outcome &outcome, const BoardTask &task)
{
    try {
        outcome.result = task.run(*outcome.board);
    } catch (const VerbError &error) {
        outcome.error = error;
    } catch (const std::exception &error) {
        outcome.error = VerbError(ExitStatus::kFailed, error.what());
    }
}

void RunAll(std::vector<Outcome> &outcomes, const BoardTask &task, unsigned jobs)
{
    std::atomic<std::size_t> next = 0;
    const auto worker = [&] {
        for (std::size_t i = next++; i < outcomes.size(); i = next++) {
            if (outcomes[i].error)
                continue;
            if (Interrupted())
                outcomes[i].error = VerbError(ExitStatus::kInterrupted, "interrupted");
            else
                RunOne(outcomes[i], task);
        }
    };
    // This thread is one of the workers.
    std::vector<std::jthread> threads;
    for (std::size_t i = 1; i < std::min<std::size_t>(jobs, outcomes.size()); ++i)
        threads.emplace_back(worker);
    worker();
}

ExitStatus StatusOfAll(const std::vector<Outcome> &outcomes)
{
    const auto statusOf = [](const Outcome &outcome) {
        return outcome.error ? outcome.error->Status() : ExitStatus::kDone;
    };
    const ExitStatus first = statusOf(outcomes.front());
    bool done = false;
    bool agree = true;
    for (const Outcome &outcome : outcomes) {
        const ExitStatus status = statusOf(outcome);
        // Ctrl-C concerns all boards.
        if (status == ExitStatus::kInterrupted)
            return status;
        done = done || status == ExitStatus::kDone;
        agree = agree && status == first;
    }
    if (agree)
        return first;
    return done ? ExitStatus::kPartly : ExitStatus::kFailed;
}

void PrintAll(Output &output, const std::vector<Outcome> &outcomes, const BoardTask &task)
{
    nlohmann::json boards = nlohmann::json::array();
    const char *separator = "";
    for (const Outcome &outcome : outcomes) {
        if (output.Json()) {
            boards.push_back(
                outcome.error ? nlohmann::json{{"board", outcome.label}, {"error", ErrorJson(*outcome.error)}}
                              : outcome.result);
        } else if (outcome.error) {
            const std::string message = outcome.board == nullptr
                                            ? outcome.error->what()
                                            : outcome.label + ": " + outcome.error->what();
            output.Error({outcome.error->Status(), message});
        } else {
            const std::string text = task.text(*outcome.board, outcome.result);
            output.Print(separator + text);
            const bool severalLines = std::count(text.begin(), text.end(), '\n') > 1;
            separator = severalLines ? "\n" : "";
        }
    }
    if (output.Json())
        output.PrintJson({{"boards", boards}});
}

} // namespace

void AddBoardNames(CLI::App &command, std::vector<std::string> &names)
{
    command.add_option("BOARD", names, "address, identifier, name or MAC of a board; several are possible")
        ->required()
        ->type_name("");
}

ExitStatus RunOnBoards(ToolContext &context, const std::vector<std::string> &names, const BoardTask &task)
{
    std::vector<BoardSelector> selectors;
    std::transform(names.begin(), names.end(), std::back_inserter(selectors), ParseSelector);
    DiscoverySocket socket(context.options.interface);
    const std::vector<Board> boards = BoardFinder(socket, selectors).Search(context.Timeout(kSearchTime));

    std::vector<Outcome> outcomes = Resolve(selectors, boards);
    RunAll(outcomes, task, context.options.jobs);
    if (names.size() > 1) {
        PrintAll(context.output, outcomes, task);
        return StatusOfAll(outcomes);
    }
    const Outcome &only = outcomes.front();
    if (only.error)
        throw *only.error;
    if (context.output.Json())
        context.output.PrintJson(only.result);
    else
        context.output.Print(task.text(*only.board, only.result));
    return ExitStatus::kDone;
}

} // namespace ledboard
