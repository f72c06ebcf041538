// SPDX-License-Identifier: MIT
#include "program/command_line.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace board
{

namespace
{

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

constexpr char kAbout[] =
    "A whole LED controller board on this machine: own root, network, processes, FPGA line, player, "
    "supervisor.\n"
    "Without a command: boots it and shows it live; on a pipe, prints one line for each event.\n";
constexpr char kRunningGroup[] = "A running board, from its PC shell";

std::string FileContent(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// "WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES]".
ScreenMode ParseScreen(const std::string &text)
{
    ScreenMode mode;
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

void AddBoardOptions(CLI::App &app, CommandLine &line)
{
    const char *group = "The board";
    app.add_option("--daemon", line.board.daemon, "the daemon to run")->group(group)->capture_default_str();
    app.add_option("--prefix", line.prefix, "words in front of it, such as \"qemu-arm-static -L SYSROOT\"")
        ->group(group);
    app.add_option("--env", line.environment, "NAME=VALUE for the daemon")
        ->group(group)
        ->allow_extra_args(false);
    app.add_option("--file", line.files, "BOARD-PATH=FILE: put a file into the board's root")->group(group);
    app.add_option("--file-limit", line.board.softFileLimit, "soft limit of open files for the daemon")
        ->group(group);
    app.add_option("--usb", line.usbMebibytes, "size in MiB of a USB disk that is plugged in at start")
        ->group(group);
    app.add_option("--screen", line.screens,
                   "WIDTHxHEIGHT[xBITS][,bgr][,pad=BYTES]: a screen on /dev/fb0; repeat it for fb1 and fb2")
        ->group(group)
        ->allow_extra_args(false);
    app.add_option("--data", line.board.dataMebibytes, "size of /home/root/plexa_data in MiB")->group(group);
    app.add_option("--number", line.board.number, "the network is 10.20.<30 + NUMBER>.0/24")
        ->group(group)
        ->check(CLI::Range(0U, 200U));
    app.add_flag("--dhcp", line.dhcp, "eth0 asks for an address by DHCP, and a server answers")->group(group);
    app.add_flag("--dhcp-silent", line.dhcpSilent, "eth0 asks for an address by DHCP, and nobody answers")
        ->group(group);
    app.add_flag("--no-address", line.noAddress, "eth0 is up without an address")->group(group);
    app.add_flag("--modem", line.modem, "a 3G modem is plugged in")->group(group);
    app.add_flag("--no-serial", line.noSerial, "there is no /dev/ttyO0")->group(group);
    app.add_flag("--no-player", line.noPlayer, "no player logs in")->group(group);
    app.add_flag("--no-supervisor", line.noSupervisor, "nobody listens for the heartbeat")->group(group);
    app.add_flag("--no-daemon", line.noDaemon, "the daemon is not started")->group(group);
}

struct Request {
    const char *name;
    const char *help;
    const char *argument; // nullptr: none
    bool records;         // can be followed
    int maxWords = 2;     // of the argument
};

constexpr Request kRequests[] = {
    {"state", "the state of the board", nullptr, false},
    {"sessions", "connections to the daemon", nullptr, false},
    {"log", "what the daemon has written", nullptr, true},
    {"frames", "frames that the FPGA has received", nullptr, true},
    {"messages", "messages that the player has received", nullptr, true},
    {"commands", "command lines that the daemon has given to the shell", nullptr, true},
    {"calls", "calls of reboot, hwclock, date -s and pppd, which are stand-ins", nullptr, true},
    {"screenshot", "save the picture of a screen as a PNG file", "FILE [0|1|2]", false},
    {"forget", "empty all of the records above", nullptr, false},
    {"cable", "pull the Ethernet cable or plug it in", "in|out", false},
    {"usb", "plug a USB disk in or pull it out; the player reports it to the daemon", "in|out [MIB]", false},
    {"modem", "plug the modem in, pull it out, or change its state", "in|out|no-sim|pin|sms SENDER TEXT|...",
     false, 64},
    {"at", "AT commands that the modem has received", nullptr, true},
    {"serial", "connect or remove /dev/ttyO0", "in|out", false},
    {"player", "connect or disconnect the player", "on|off", false},
    {"supervisor", "start or stop the supervisor", "on|off", false},
    {"dhcp", "start or stop a DHCP server on the PC side", "on|off", false},
    {"kill", "kill the daemon", nullptr, false},
    {"restart", "restart the daemon, with the program as it was built last", nullptr, false},
    {"reboot", "reset the board", nullptr, false},
};

void AddRequests(CLI::App &app, CommandLine &line)
{
    for (const Request &request : kRequests) {
        CLI::App *verb = app.add_subcommand(request.name, request.help)->group(kRunningGroup);
        verb->add_flag("--json", line.json, "one JSON document");
        if (request.records)
            verb->add_flag("--follow,-f", line.follow, "keep showing new entries");
        if (request.argument != nullptr)
            verb->add_option("what", line.request, request.argument)
                ->required()
                ->expected(1, request.maxWords);
        verb->callback([&line, name = request.name] {
            line.mode = Mode::kRequest;
            line.request.insert(line.request.begin(), name);
        });
    }
}

// Everything after the first "--" is a command with options of its own.
int TakeCommand(int argc, char **argv, Words &command)
{
    char **const end = argv + argc;
    char **const marker = std::find(argv, end, std::string_view("--"));
    if (marker != end)
        command.assign(marker + 1, end);
    return static_cast<int>(marker - argv);
}

} // namespace

std::optional<CommandLine> ParseCommandLine(int argc, char **argv, int &status)
{
    CommandLine line;
    CLI::App app(kAbout, "virtual-board");
    app.require_subcommand(0, 1);
    app.fallthrough(false);
    AddBoardOptions(app, line);
    const auto add = [&](const char *name, const char *help, Mode mode) {
        CLI::App *verb = app.add_subcommand(name, help);
        verb->final_callback([&line, mode] {
            line.mode = mode;
            if (mode != Mode::kShell && line.command.empty())
                throw CLI::RequiredError("-- COMMAND");
        });
        return verb;
    };
    for (CLI::App *verb :
         {add("shell", "boot a board and open a shell on the PC side of its cable", Mode::kShell),
          add("exec", "boot a board and run a command on the PC side: exec -- COMMAND...", Mode::kExec),
          add("root", "run a command inside a board without a daemon: root -- COMMAND...", Mode::kRoot)})
        AddBoardOptions(*verb, line);
    add("run", "run a command inside the running board: run -- COMMAND...", Mode::kRun)->group(kRunningGroup);
    AddRequests(app, line);
    argc = TakeCommand(argc, argv, line.command);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        status = app.exit(error) == 0 ? 0 : 2;
        return std::nullopt;
    }
    return line;
}

Options BoardOptions(const CommandLine &line)
{
    Options options = line.board;
    options.daemon = fs::absolute(options.daemon);
    if (!line.prefix.empty()) {
        options.prefix.clear();
        std::istringstream words(line.prefix);
        for (std::string word; words >> word;)
            options.prefix.push_back(word);
    }
    for (const std::string &one : line.files) {
        const std::size_t equals = one.find('=');
        if (one.front() != '/' || equals == std::string::npos)
            throw std::runtime_error("--file wants BOARD-PATH=FILE, not " + one);
        options.files[one.substr(0, equals)] = FileContent(one.substr(equals + 1));
    }
    options.environment.insert(options.environment.end(), line.environment.begin(), line.environment.end());
    for (const std::string &screen : line.screens)
        options.screens.push_back(ParseScreen(screen));
    if (line.dhcp)
        options.addressing = Addressing::kDhcp;
    else if (line.dhcpSilent)
        options.addressing = Addressing::kDhcpSilent;
    else if (line.noAddress)
        options.addressing = Addressing::kNone;
    options.modem = line.modem;
    options.serial = !line.noSerial;
    options.player = !line.noPlayer;
    options.supervisor = !line.noSupervisor;
    options.startDaemon = !line.noDaemon;
    return options;
}

} // namespace board
