// SPDX-License-Identifier: MIT
// virtual_board/devices/pseudo_terminal.h: a line of the board, such as "/dev/ttyO0": the daemon has the
// slave, whoever plays the device has the master.
#pragma once

#include "common/unique_fd.h"

#include <termios.h>

#include <string>

namespace board
{

class PseudoTerminal
{
public:
    explicit PseudoTerminal(std::string folder); // where its own devpts is mounted
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal &) = delete;
    PseudoTerminal &operator=(const PseudoTerminal &) = delete;

    void Open();  // a fresh line, at a SlavePath of its own; nothing when it is open
    void Close(); // the daemon sees a hang-up; nothing when it is closed
    bool IsOpen() const { return master_.Valid(); }
    int Master() const { return master_.Get(); } // does not block; -1 when closed
    const std::string &SlavePath() const { return slavePath_; }
    termios Attributes() const; // as the daemon has set the line

private:
    std::string folder_;
    std::string slavePath_;
    ledboard::UniqueFd master_;
    ledboard::UniqueFd slave_; // kept open, so that the line and its settings outlive the daemon
};

} // namespace board
