// SPDX-License-Identifier: MIT
// virtual_board/program/command_line.h: the command line of virtual-board.
#pragma once

#include "machine/options.h"

#include <optional>
#include <string>
#include <vector>

namespace board
{

enum class Mode {
    kLive,    // boots a board and shows it
    kShell,   // boots a board and opens a shell on the PC side
    kExec,    // boots a board and runs a command on the PC side
    kRoot,    // runs a command inside a board without a daemon
    kRun,     // runs a command inside the running board
    kRequest, // asks the running board, or orders something
};

// As it was written; BoardOptions reads the files that it names.
struct CommandLine {
    Mode mode = Mode::kLive;
    std::vector<std::string> command; // what comes after "--"
    std::vector<std::string> request; // such as {"cable", "out"}
    bool json = false, follow = false;

    Options board;
    std::string prefix;
    std::vector<std::string> files, environment, screens;
    unsigned usbMebibytes = 0; // 0: no disk at start
    bool dhcp = false, dhcpSilent = false, noAddress = false;
    bool modem = false;
    bool noSerial = false, noPlayer = false, noSupervisor = false, noDaemon = false;
};

// Prints help or what is wrong itself; nullopt then, and `status` is the exit status.
std::optional<CommandLine> ParseCommandLine(int argc, char **argv, int &status);

// Throws std::runtime_error if an option is invalid or a file cannot be read.
Options BoardOptions(const CommandLine &line);

} // namespace board
