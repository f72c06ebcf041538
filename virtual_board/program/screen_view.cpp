// SPDX-License-Identifier: MIT
// The live view on a terminal (ncurses).
#include "program/board_state.h"
#include "program/board_view.h"
#include "program/commands.h"
#include "program/steering.h"

#include <fmt/core.h>

#include <curses.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdlib>

namespace board
{

namespace
{

constexpr int kRefreshMilliseconds = 100;
constexpr int kMinHeight = 16;
constexpr int kMinWidth = 60;

enum Color : short { kTitle = 1, kGood, kBad };

// The terminal, for as long as this lives.
class Screen
{
public:
    Screen()
    {
        std::setlocale(LC_ALL, "");
        initscr();
        Prepare();
        if (std::getenv("NO_COLOR") == nullptr && has_colors()) {
            start_color();
            use_default_colors();
            init_pair(kTitle, COLOR_CYAN, -1);
            init_pair(kGood, COLOR_GREEN, -1);
            init_pair(kBad, COLOR_RED, -1);
        }
    }
    ~Screen() { endwin(); }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    void Suspend() { endwin(); }
    void Resume()
    {
        Prepare();
        clearok(stdscr, TRUE);
        refresh();
    }

private:
    static void Prepare()
    {
        cbreak();
        noecho();
        nonl();
        keypad(stdscr, TRUE);
        curs_set(0);
        timeout(kRefreshMilliseconds);
    }
};

struct Area {
    int top, left, height, width;
};

void Put(const Area &area, int row, const std::string &text, attr_t look = A_NORMAL)
{
    if (row >= area.height)
        return;
    std::string line = CleanLine(text).substr(0, static_cast<std::size_t>(std::max(area.width, 0)));
    attron(look);
    mvaddstr(area.top + row, area.left, line.c_str());
    attroff(look);
}

// The newest lines that fit below a title.
void PutList(const Area &area, const std::string &title, const std::vector<std::string> &lines)
{
    Put(area, 0, fmt::format("{} ({})", title, lines.size()),
        A_BOLD | static_cast<attr_t>(COLOR_PAIR(kTitle)));
    const int room = area.height - 1;
    const int count = std::min(room, static_cast<int>(lines.size()));
    for (int i = 0; i < count; ++i)
        Put(area, 1 + i, lines[lines.size() - static_cast<std::size_t>(count - i)]);
}

template <typename Item, typename Line>
std::vector<std::string> LinesOf(const std::vector<Item> &items, Line line)
{
    std::vector<std::string> lines;
    std::transform(items.begin(), items.end(), std::back_inserter(lines), line);
    return lines;
}

std::vector<std::string> SessionLines(const VirtualBoard &board)
{
    return LinesOf(Connections(board),
                   [](const Connection &one) { return fmt::format("{:<22} port {}", one.peer, one.port); });
}

// Commands and stand-in calls are shown together: a stand-in is part of a command.
std::vector<std::string> CommandLines(const VirtualBoard &board)
{
    auto lines = LinesOf(board.Record().Commands(), CleanLine);
    for (const auto &call : board.Record().StandInCalls())
        lines.push_back("stand-in: " + WordsLine(call));
    return lines;
}

void Draw(const VirtualBoard &board, const std::string &note)
{
    int height = 0, width = 0;
    getmaxyx(stdscr, height, width);
    erase();
    const Area all{0, 0, height, width};
    if (height < kMinHeight || width < kMinWidth) {
        Put(all, 0, fmt::format("{} x {} at least, please", kMinWidth, kMinHeight));
        refresh();
        return;
    }
    const bool good = board.Daemon().Listens();
    const auto state = StateLines(board);
    const int stateRows = static_cast<int>(state.size());
    for (int i = 0; i < stateRows; ++i)
        Put(all, i, state[static_cast<std::size_t>(i)],
            i == 1 ? static_cast<attr_t>(COLOR_PAIR(good ? kGood : kBad)) : A_NORMAL);
    const int panesTop = stateRows + 1;
    const int panesHeight = (height - panesTop - 2) * 3 / 5;
    const int upper = panesHeight / 2, left = width / 2 - 1, right = width / 2 + 1;
    PutList({panesTop, 0, upper, left}, "sessions", SessionLines(board));
    PutList({panesTop, right, upper, width - right}, "frames to the FPGA",
            LinesOf(board.Fpga().Frames(), FrameLine));
    PutList({panesTop + upper, 0, panesHeight - upper, left}, "messages to the player",
            LinesOf(board.Player().Messages(), MessageLine));
    PutList({panesTop + upper, right, panesHeight - upper, width - right}, "commands", CommandLines(board));
    PutList({panesTop + panesHeight, 0, height - panesTop - panesHeight - 2, width}, "log of the daemon",
            board.Record().Log());
    Put(all, height - 2, note, A_BOLD);
    Put(all, height - 1,
        "c cable  u USB disk  k kill daemon  d start daemon  r reboot  f forget  s PC shell  "
        "b board shell  q quit",
        A_REVERSE);
    refresh();
}

// A shell on the terminal, with this program as its parent; the terminal comes back afterwards.
void RunShell(Screen &screen, const std::vector<std::string> &command)
{
    screen.Suspend();
    fmt::print("\nexit leads back to the board.\n");
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        tcsetpgrp(STDIN_FILENO, getpid());
        for (const int number : {SIGINT, SIGTSTP, SIGTTIN, SIGTTOU})
            signal(number, SIG_DFL);
        Execute(command);
        _exit(127);
    }
    waitpid(child, nullptr, 0);
    tcsetpgrp(STDIN_FILENO, getpgrp());
    screen.Resume();
}

std::string Obey(VirtualBoard &board, Screen &screen, int key)
{
    const char *shell = std::getenv("SHELL");
    switch (key) {
    case 'c':
        return Steer(board, {"cable", board.Network().CableIn() ? "out" : "in"}).lines.front();
    case 'u':
        return Steer(board, {"usb", board.UsbDisk().In() ? "out" : "in"}).lines.front();
    case 'k':
        return Steer(board, {"kill"}).lines.front();
    case 'd':
        return Steer(board, {"restart"}).lines.front();
    case 'r':
        return Steer(board, {"reboot"}).lines.front();
    case 'f':
        return Steer(board, {"forget"}).lines.front();
    case 's':
        RunShell(screen, {shell != nullptr ? shell : "/bin/bash"});
        return "";
    case 'b':
        RunShell(screen, {"virtual-board", "run", "--", "sh"});
        return "";
    default:
        return "";
    }
}

// A process group of its own, in front on the terminal: a shell started from here can give the terminal back.
void TakeTerminal()
{
    for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP})
        signal(number, SIG_IGN);
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpgrp());
}

} // namespace

int ShowScreen(VirtualBoard &board)
{
    TakeTerminal();
    Screen screen;
    std::string note =
        fmt::format("the board is up: {}", board.Network().Eth0Address().value_or("no address yet"));
    while (!EndWanted()) {
        Draw(board, note);
        const int key = getch();
        if (key == 'q')
            break;
        if (key != ERR && key != KEY_RESIZE)
            note = Obey(board, screen, key);
    }
    return 0;
}

} // namespace board
