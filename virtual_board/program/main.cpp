// SPDX-License-Identifier: MIT
// The program virtual-board: a board on this machine, with a live view, a PC shell beside it, or one command.
#include "board/virtual_board.h"
#include "machine/pc_side.h"
#include "program/board_view.h"
#include "program/command_line.h"
#include "program/commands.h"
#include "program/run_in_board.h"
#include "program/steering_socket.h"

#include <fmt/core.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

using board::CommandLine;
using board::Mode;
using board::VirtualBoard;
using Words = std::vector<std::string>;
namespace fs = std::filesystem;

namespace
{

// Variables that sudo would drop.
constexpr std::array kKept = {"PATH",
                              "TERM",
                              "SHELL",
                              "NO_COLOR",
                              "LC_ALL",
                              "LANG",
                              "LEDBOARD_DAEMON",
                              "LEDBOARD_DAEMON_PREFIX",
                              "LEDBOARD_BIN_DIR",
                              "ASAN_OPTIONS",
                              "UBSAN_OPTIONS",
                              "TSAN_OPTIONS"};

void BecomeRoot(char **argv)
{
    if (geteuid() == 0) {
        if (std::getenv("VIRTUAL_BOARD_SUDO") != nullptr)
            prctl(PR_SET_PDEATHSIG, SIGKILL); // the board ends when sudo is killed
        unsetenv("VIRTUAL_BOARD_SUDO");
        return;
    }
    Words words = {"sudo", "env", "VIRTUAL_BOARD_SUDO=1"};
    for (const char *name : kKept) {
        if (const char *value = std::getenv(name); value != nullptr)
            words.push_back(fmt::format("{}={}", name, value));
    }
    words.push_back(fs::read_symlink("/proc/self/exe"));
    for (char **argument = argv + 1; *argument != nullptr; ++argument)
        words.emplace_back(*argument);
    board::Execute(words);
    fmt::print(stderr, "virtual-board: root is needed, and there is no sudo; start it as root.\n");
    std::exit(1);
}

// The PC's programs come from the folder of this one.
void PreparePcEnvironment(const VirtualBoard &board)
{
    const char *known = std::getenv("PATH");
    const std::string path = known != nullptr ? known : "/usr/bin:/bin:/usr/sbin:/sbin";
    setenv("PATH", (board::ProgramFolder() + ":" + path).c_str(), 1);
    setenv("BOARD", board.Network().Eth0Address().value_or("").c_str(), 1);
}

int RunOnPc(const Words &command)
{
    const pid_t child = fork();
    if (child == 0) {
        board::Execute(command);
        fmt::print(stderr, "virtual-board: {}: {}\n", command.front(), std::strerror(errno));
        _exit(127);
    }
    return board::WaitForCommand(child);
}

Words PcShell()
{
    const char *shell = std::getenv("SHELL");
    return {shell != nullptr && *shell != '\0' ? shell : "/bin/bash"};
}

void Welcome(const VirtualBoard &board)
{
    fmt::print("This shell is the PC at the other end of the board's cable ({} on {}).\n"
               "The board is at {} ($BOARD). Programs here: ledboard, virtual-board.\n"
               "virtual-board state, log, frames, messages, commands: shows what the board does.\n"
               "virtual-board cable out|in, usb in|out, modem in|out, kill, restart, reboot: acts on it.\n"
               "virtual-board run -- sh: opens a shell inside the board. exit ends everything.\n\n",
               board.Network().PcAddress(), board.Network().PcInterface(),
               board.Network().Eth0Address().value_or("no address yet"));
    std::fflush(stdout);
}

int WithBoard(const CommandLine &line, const std::function<int(VirtualBoard &)> &work)
{
    VirtualBoard board(BoardOptions(line));
    if (line.usbMebibytes != 0)
        board.UsbDisk().Plug(true, line.usbMebibytes);
    board.Boot();
    const board::SteeringSocket socket(board);
    PreparePcEnvironment(board);
    return work(board);
}

// The program is copied in: other file systems of this machine are not part of the board's root.
int RunInRoot(CommandLine line)
{
    line.noDaemon = line.noPlayer = line.noSupervisor = true;
    VirtualBoard board(BoardOptions(line));
    board::ProcessRequest request;
    request.arguments = line.command;
    const fs::path program = fs::absolute(line.command.front());
    if (line.command.front().find('/') != std::string::npos && fs::exists(program)) {
        request.arguments.front() = "/usr/local/bin/" + program.filename().string();
        board.Root().CopyIn(program, request.arguments.front());
    }
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!text.starts_with("PATH=") && !text.starts_with("HOME="))
            request.environment.push_back(text);
    }
    request.environment.emplace_back("PATH=/usr/sbin:/usr/bin:/sbin:/bin");
    request.environment.emplace_back("HOME=/home/root");
    request.newSession = false;
    for (int i = 0; i < 3; ++i)
        request.descriptors[i] = i;
    board.Boot();
    const int status = board.Processes().RunForeground(request);
    return status < 0 ? 1 : status;
}

int Ask(const CommandLine &line)
{
    Words words = line.request;
    if (words.front() == "screenshot")
        words[1] = fs::absolute(words[1]); // the process that writes it works in another folder
    std::size_t shown = 0;
    for (;;) {
        if (line.follow) {
            words.resize(1);
            words.push_back(std::to_string(shown));
        }
        const board::Answer answer = board::AskRunningBoard(words);
        if (line.json) {
            fmt::print("{}\n", answer.json.dump());
        } else {
            for (const std::string &text : answer.lines)
                fmt::print(answer.ok ? stdout : stderr, "{}{}\n", answer.ok ? "" : "virtual-board: ", text);
        }
        if (!line.follow || !answer.ok)
            return answer.ok ? 0 : 1;
        shown = answer.from + answer.lines.size();
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

int Run(int argc, char **argv)
{
    int status = 0;
    const auto line = board::ParseCommandLine(argc, argv, status);
    if (!line)
        return status;
    if (line->mode == Mode::kRun)
        return board::RunInRunningBoard(line->command);
    if (line->mode == Mode::kRequest)
        return Ask(*line);
    BecomeRoot(argv);
    board::EnterPcSide();
    if (line->mode == Mode::kRoot)
        return RunInRoot(*line);
    return WithBoard(*line, [&](VirtualBoard &board) {
        if (line->mode == Mode::kExec)
            return RunOnPc(line->command);
        if (line->mode == Mode::kShell) {
            Welcome(board);
            return RunOnPc(PcShell());
        }
        return board::ShowLive(board);
    });
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        const std::string text = error.what();
        fmt::print(stderr, "{}{}\n", text.starts_with("virtual board: ") ? "" : "virtual-board: ", text);
        return 1;
    }
}
