// SPDX-License-Identifier: MIT
// tool/discovery/address_change.h: changes a board's addressing and finds the board again.
//
// A board applies the first request without an answer, acknowledges the second, and would apply a third
// again. So the board's state is read in between, and the second request goes out only once, after the first
// was applied.
#pragma once

#include "discovery/board.h"

#include <functional>
#include <string>

namespace ledboard
{

struct WantedAddressing {
    bool dynamic = false;
    in_addr address{}; // this and the following are for a fixed address only
    in_addr netmask{};
    in_addr gateway{};
    int port = 0; // the custom port; 0: no custom port
};

// True if the board reports exactly this addressing.
bool HasAddressing(const Board &board, const WantedAddressing &wanted);

struct AddressChange {
    Board board;
    WantedAddressing wanted;
    std::string interface;           // of the PC; empty: the one that the board answered on
    std::chrono::milliseconds limit; // for each step
    std::function<void(const std::string &sentence)> note; // called with what is waited for
};

// Returns the board as it answers after the change. Throws VerbError; its message names the step that failed.
Board ChangeAddressing(const AddressChange &change);

} // namespace ledboard
