// SPDX-License-Identifier: MIT
#include "program/board_state.h"
#include "program/board_view.h"
#include "program/steering.h"

#include <fmt/chrono.h>

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <sstream>

namespace board
{

namespace
{

std::atomic<bool> s_end = false;

void Print(const char *kind, const std::string &text)
{
    const auto now = std::chrono::system_clock::now();
    const auto part = std::chrono::duration_cast<Milliseconds>(now.time_since_epoch()).count() % 1000;
    fmt::print("{:%H:%M:%S}.{:03} {:8} {}\n", fmt::localtime(std::chrono::system_clock::to_time_t(now)), part,
               kind, text);
}

// Prints what a list holds beyond what was shown; a list that became shorter was emptied.
template <typename Item, typename Line>
void PrintNew(const char *kind, const std::vector<Item> &items, std::size_t &shown, Line line)
{
    if (items.size() < shown)
        shown = 0;
    for (; shown < items.size(); ++shown)
        Print(kind, line(items[shown]));
}

struct Shown {
    std::size_t log = 0, frames = 0, messages = 0, commands = 0, calls = 0;
    std::vector<std::string> state;
};

void PrintWhatHappened(const VirtualBoard &board, Shown &shown)
{
    auto state = StateLines(board);
    for (std::size_t i = 0; i < state.size(); ++i) {
        const std::string text = state[i].substr(0, state[i].rfind(';')); // the heartbeats always change
        if (i >= shown.state.size() || shown.state[i] != text)
            Print("state", state[i]);
        state[i] = text;
    }
    shown.state = std::move(state);
    PrintNew("log", board.Record().Log(), shown.log, CleanLine);
    PrintNew("command", board.Record().Commands(), shown.commands, CleanLine);
    PrintNew("stand-in", board.Record().StandInCalls(), shown.calls, WordsLine);
    PrintNew("fpga", board.Fpga().Frames(), shown.frames, FrameLine);
    PrintNew("player", board.Player().Messages(), shown.messages, MessageLine);
    std::fflush(stdout);
}

// Commands as from the PC shell, one a line. false: standard input has ended.
bool TakeCommands(VirtualBoard &board)
{
    static std::string pending;
    char bytes[1024];
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (poll(&input, 1, 0) <= 0)
        return true;
    const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
    if (got <= 0)
        return false;
    pending.append(bytes, static_cast<std::size_t>(got));
    for (std::size_t end = 0; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        std::istringstream words(pending.substr(0, end));
        const std::vector<std::string> command{std::istream_iterator<std::string>(words), {}};
        if (command.empty())
            continue;
        const Answer answer = Steer(board, command);
        for (const std::string &line : answer.lines)
            Print(answer.ok ? "answer" : "error", CleanLine(line));
    }
    return true;
}

} // namespace

void WatchForEnd()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { s_end = true; };
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaction(number, &action, nullptr);
}

bool EndWanted()
{
    return s_end;
}

int ShowLive(VirtualBoard &board)
{
    WatchForEnd();
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 ? ShowScreen(board) : ShowLines(board);
}

int ShowLines(VirtualBoard &board)
{
    Shown shown;
    bool input = true;
    while (!EndWanted()) {
        input = input && TakeCommands(board);
        PrintWhatHappened(board, shown);
        board.WaitFor(EndWanted, Milliseconds(50));
    }
    return 0;
}

} // namespace board
