// SPDX-License-Identifier: MIT
// The program virtual-board: a board on this machine, with a live view, a PC shell beside it, or one command.
#include "board/virtual_board.h"
#include "machine/pc_side.h"
#include "program/board_view.h"
#include "program/steering.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

using board::Options;
using board::VirtualBoard;
using Words = std::vector<std::string>;
namespace fs = std::filesystem;

struct Settings {
    Options board;
    std::string prefix;
    std::string folder; // files to lay into the root
    Words files;
    Words environment;
    std::vector<std::string> screens;
    unsigned usbMebibytes = 0;
    Words command;
    Words request; // to a board that runs already
    bool dhcp = false, dhcpSilent = false, noAddress = false;
    bool modem = false;
    bool noSerial = false, noPlayer = false, noSupervisor = false, noDaemon = false;
    bool json = false, follow = false;
};

static constexpr char kAbout[] =
    "A whole LED controller board on this machine: own root, network, processes, FPGA line, player, "
    "supervisor.\n"
    "Without a command: boots it and shows it live; on a pipe, one line for everything that happens.\n";

// Variables that a change to root by sudo would lose.
static constexpr std::array kKept = {"PATH",
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

static void BecomeRoot(char **argv)
{
    if (geteuid() == 0) {
        if (std::getenv("VIRTUAL_BOARD_SUDO") != nullptr)
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a killed sudo takes the board with it
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
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp("sudo", arguments.data());
    fmt::print(stderr, "virtual-board: it needs root, and there is no sudo; start it as root.\n");
    std::exit(1);
}

static std::string FileContent(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// "WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES]".
static board::ScreenMode ParseScreen(const std::string &text)
{
    board::ScreenMode mode;
    std::istringstream words(text);
    std::string word;
    std::getline(words, word, ',');
    const int fields = std::sscanf(word.c_str(), "%ux%ux%u", &mode.width, &mode.height, &mode.bitsPerPixel);
    const bool depthFits = mode.bitsPerPixel % 8 == 0 && mode.bitsPerPixel >= 8 && mode.bitsPerPixel <= 32;
    bool fits = fields >= 2 && mode.width - 1 < 8192 && mode.height - 1 < 8192 && depthFits;
    while (std::getline(words, word, ',')) {
        if (word == "bgr")
            mode.bgr = true;
        else
            fits = std::sscanf(word.c_str(), "pad=%u", &mode.padding) == 1 && mode.padding <= 8192 && fits;
    }
    if (!fits)
        throw std::runtime_error("--screen wants WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES], not " + text);
    return mode;
}

static Options BoardOptions(const Settings &settings)
{
    Options options = settings.board;
    options.daemon = fs::absolute(options.daemon);
    if (!settings.prefix.empty()) {
        options.prefix.clear();
        std::istringstream words(settings.prefix);
        for (std::string word; words >> word;)
            options.prefix.push_back(word);
    }
    for (const std::string &one : settings.files) {
        const std::size_t equals = one.find('=');
        if (one.front() != '/' || equals == std::string::npos)
            throw std::runtime_error("--file wants BOARD-PATH=FILE, not " + one);
        options.files[one.substr(0, equals)] = FileContent(one.substr(equals + 1));
    }
    options.environment.insert(options.environment.end(), settings.environment.begin(),
                               settings.environment.end());
    for (const std::string &screen : settings.screens)
        options.screens.push_back(ParseScreen(screen));
    if (settings.dhcp)
        options.addressing = board::Addressing::kDhcp;
    else if (settings.dhcpSilent)
        options.addressing = board::Addressing::kDhcpSilent;
    else if (settings.noAddress)
        options.addressing = board::Addressing::kNone;
    options.modem = settings.modem;
    options.serial = !settings.noSerial;
    options.player = !settings.noPlayer;
    options.supervisor = !settings.noSupervisor;
    options.startDaemon = !settings.noDaemon;
    return options;
}

static void AddBoardOptions(CLI::App &app, Settings &settings)
{
    const char *group = "The board";
    app.add_option("--daemon", settings.board.daemon, "the daemon to run")
        ->group(group)
        ->capture_default_str();
    app.add_option("--prefix", settings.prefix, "words before it, such as \"qemu-arm-static -L SYSROOT\"")
        ->group(group);
    app.add_option("--env", settings.environment, "NAME=VALUE for the daemon")
        ->group(group)
        ->allow_extra_args(false);
    app.add_option("--file", settings.files, "BOARD-PATH=FILE: lay a file into the board's root")
        ->group(group);
    app.add_option("--file-limit", settings.board.softFileLimit, "soft limit of open files for the daemon")
        ->group(group);
    app.add_option("--usb", settings.usbMebibytes, "a USB disk of so many MiB is plugged in at start")
        ->group(group);
    app.add_option("--screen", settings.screens,
                   "WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES] of /dev/fb0, again for fb1 and fb2; without: none")
        ->group(group)
        ->allow_extra_args(false);
    app.add_option("--data", settings.board.dataMebibytes, "size of /home/root/plexa_data in MiB")
        ->group(group);
    app.add_option("--number", settings.board.number, "the network is 10.20.<30 + NUMBER>.0/24")
        ->group(group)
        ->check(CLI::Range(0U, 200U));
    app.add_flag("--dhcp", settings.dhcp, "eth0 asks by DHCP, a server answers")->group(group);
    app.add_flag("--dhcp-silent", settings.dhcpSilent, "eth0 asks by DHCP, nobody answers")->group(group);
    app.add_flag("--no-address", settings.noAddress, "eth0 is up without an address")->group(group);
    app.add_flag("--modem", settings.modem, "a 3G modem is plugged in")->group(group);
    app.add_flag("--no-serial", settings.noSerial, "there is no /dev/ttyO0")->group(group);
    app.add_flag("--no-player", settings.noPlayer, "no player logs in")->group(group);
    app.add_flag("--no-supervisor", settings.noSupervisor, "nobody listens for the heartbeat")->group(group);
    app.add_flag("--no-daemon", settings.noDaemon, "the daemon is not started")->group(group);
}

// The PC's own programs come from the folder of this one.
static void PreparePcEnvironment(const VirtualBoard &board)
{
    const char *known = std::getenv("PATH");
    const std::string path = known != nullptr ? known : "/usr/bin:/bin:/usr/sbin:/sbin";
    setenv("PATH", (board::ProgramFolder() + ":" + path).c_str(), 1);
    setenv("BOARD", board.Network().Eth0Address().value_or("").c_str(), 1);
}

static int RunOnPc(const Words &command)
{
    Words copy = command;
    std::vector<char *> words;
    for (std::string &word : copy)
        words.push_back(word.data());
    words.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        execvp(words.front(), words.data());
        fmt::print(stderr, "virtual-board: {}: {}\n", command.front(), std::strerror(errno));
        _exit(127);
    }
    signal(SIGINT, SIG_IGN); // the command decides what it means
    signal(SIGQUIT, SIG_IGN);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

static Words PcShell()
{
    const char *shell = std::getenv("SHELL");
    return {shell != nullptr && *shell != '\0' ? shell : "/bin/bash"};
}

static void Welcome(const VirtualBoard &board)
{
    fmt::print("This shell is the PC at the other end of the board's cable ({} on {}).\n"
               "The board is at {} ($BOARD). Programs here: ledboard, virtual-board.\n"
               "virtual-board state, log, frames, messages, commands: what the board does.\n"
               "virtual-board cable out|in, usb in|out, modem in|out, kill, restart, reboot: what happens to "
               "it.\n"
               "virtual-board run -- sh: a shell inside the board. exit ends everything.\n\n",
               board.Network().PcAddress(), board.Network().PcInterface(),
               board.Network().Eth0Address().value_or("no address yet"));
    std::fflush(stdout);
}

static int WithBoard(const Settings &settings, const std::function<int(VirtualBoard &)> &work)
{
    VirtualBoard board(BoardOptions(settings));
    if (settings.usbMebibytes != 0)
        board.UsbDisk().Plug(true, settings.usbMebibytes);
    board.Boot();
    const board::SteeringSocket socket(board);
    PreparePcEnvironment(board);
    return work(board);
}

// The program is copied in: other file systems of this machine are not part of the board's root.
static int RunInRoot(Settings settings)
{
    settings.noDaemon = settings.noPlayer = settings.noSupervisor = true;
    VirtualBoard board(BoardOptions(settings));
    board::ProcessRequest request;
    request.arguments = settings.command;
    const fs::path program = fs::absolute(settings.command.front());
    if (settings.command.front().find('/') != std::string::npos && fs::exists(program)) {
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

static int Ask(const Settings &settings)
{
    Words words = settings.request;
    if (words.front() == "screenshot")
        words[1] = fs::absolute(words[1]); // the board's own folder is another one
    std::size_t shown = 0;
    for (;;) {
        if (settings.follow) {
            words.resize(1);
            words.push_back(std::to_string(shown));
        }
        const board::Answer answer = board::AskRunningBoard(words);
        if (settings.json) {
            fmt::print("{}\n", answer.json.dump());
        } else {
            for (const std::string &line : answer.lines)
                fmt::print(answer.ok ? stdout : stderr, "{}{}\n", answer.ok ? "" : "virtual-board: ", line);
        }
        if (!settings.follow || !answer.ok)
            return answer.ok ? 0 : 1;
        shown = answer.from + answer.lines.size();
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

struct Request {
    const char *name;
    const char *help;
    const char *argument; // nullptr: none
    bool records;         // can be followed
    int most = 2;         // words of the argument
};

static constexpr Request kRequests[] = {
    {"state", "how the board is", nullptr, false},
    {"sessions", "who is connected to the daemon", nullptr, false},
    {"log", "what the daemon has written", nullptr, true},
    {"frames", "what the FPGA was told", nullptr, true},
    {"messages", "what the player was told", nullptr, true},
    {"commands", "command lines the daemon gave to the shell", nullptr, true},
    {"calls", "calls of reboot, hwclock, date -s and pppd, which are stand-ins", nullptr, true},
    {"screenshot", "write what a screen shows to a PNG file", "FILE [0|1|2]", false},
    {"forget", "empty all of these records", nullptr, false},
    {"cable", "pull the Ethernet cable or plug it in", "in|out", false},
    {"usb", "plug a USB disk in or pull it out; the player tells the daemon", "in|out [MIB]", false},
    {"modem", "plug the modem in or pull it out, or say how it is", "in|out|no-sim|pin|sms SENDER TEXT|...",
     false, 64},
    {"at", "AT commands the modem was given", nullptr, true},
    {"serial", "connect or take away /dev/ttyO0", "in|out", false},
    {"player", "the player logs in or goes away", "on|off", false},
    {"supervisor", "the supervisor listens or goes away", "on|off", false},
    {"dhcp", "a DHCP server on the PC side", "on|off", false},
    {"kill", "kill the daemon", nullptr, false},
    {"restart", "start the daemon again, a newly built one too", nullptr, false},
    {"reboot", "reset the board", nullptr, false},
};

static void AddRequests(CLI::App &app, Settings &settings)
{
    for (const Request &request : kRequests) {
        CLI::App *verb =
            app.add_subcommand(request.name, request.help)->group("A board that runs, from its PC shell");
        verb->add_flag("--json", settings.json, "one JSON document");
        if (request.records)
            verb->add_flag("--follow,-f", settings.follow, "go on showing what comes");
        if (request.argument != nullptr)
            verb->add_option("what", settings.request, request.argument)
                ->required()
                ->expected(1, request.most);
        verb->callback(
            [&settings, name = request.name] { settings.request.insert(settings.request.begin(), name); });
    }
}

// Everything behind the first "--" is a command and none of our business.
static int TakeCommand(int argc, char **argv, Words &command)
{
    char **const end = argv + argc;
    char **const marker = std::find(argv, end, std::string_view("--"));
    if (marker != end)
        command.assign(marker + 1, end);
    return static_cast<int>(marker - argv);
}

static int Run(int argc, char **argv)
{
    Settings settings;
    CLI::App app(kAbout, "virtual-board");
    app.require_subcommand(0, 1);
    app.fallthrough(false);
    AddBoardOptions(app, settings);
    CLI::App *shell =
        app.add_subcommand("shell", "boot a board and open a shell on the PC side of its cable");
    CLI::App *exec =
        app.add_subcommand("exec", "boot a board and run a command on the PC side: exec -- COMMAND...");
    CLI::App *root =
        app.add_subcommand("root", "run a command inside a board without a daemon: root -- COMMAND...");
    CLI::App *run = app.add_subcommand("run", "run a command inside the running board: run -- COMMAND...");
    run->group("A board that runs, from its PC shell");
    for (CLI::App *one : {shell, exec, root})
        AddBoardOptions(*one, settings);
    for (CLI::App *one : {exec, root, run})
        one->final_callback([&settings] {
            if (settings.command.empty())
                throw CLI::RequiredError("-- COMMAND");
        });
    AddRequests(app, settings);
    argc = TakeCommand(argc, argv, settings.command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    if (run->parsed())
        return board::RunInRunningBoard(settings.command);
    if (!settings.request.empty())
        return Ask(settings);
    BecomeRoot(argv);
    board::EnterPcSide();
    if (root->parsed())
        return RunInRoot(settings);
    return WithBoard(settings, [&](VirtualBoard &board) {
        if (exec->parsed())
            return RunOnPc(settings.command);
        if (shell->parsed()) {
            Welcome(board);
            return RunOnPc(PcShell());
        }
        return board::ShowLive(board);
    });
}

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
