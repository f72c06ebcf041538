// SPDX-License-Identifier: MIT
// tool/discovery/address_change.h: changes a board's addressing and finds the board again.
//
// A board applies a change without a word and acknowledges it when the same request comes once more; a third
// one it would apply again. So the board's state is read in between, and the second request goes out once,
// and only when the first was applied.
#pragma once

#include "discovery/board.h"

#include <functional>
#include <string>

namespace ledboard
{

struct WantedAddressing {
    bool dynamic = false;
    in_addr address{}; // these and the port count for a fixed address only
    in_addr netmask{};
    in_addr gateway{};
    int port = 0; // 0: no custom port
};

// What the board says of itself is what is wanted.
bool IsAddressedSo(const Board &board, const WantedAddressing &wanted);

struct AddressChange {
    Board board;
    WantedAddressing wanted;
    std::string interface;                                 // PC's interface to use, empty: the board's
    std::chrono::milliseconds limit;                       // of every step
    std::function<void(const std::string &sentence)> note; // what is waited for
};

// The board as it is found afterwards. Throws VerbError, whose text names the step that failed.
Board ChangeAddressing(const AddressChange &change);

} // namespace ledboard
