// SPDX-License-Identifier: MIT
// tool/discovery/board_selector.h: what the user wrote for BOARD, and which boards it means.
#pragma once

#include "discovery/board.h"

#include <optional>
#include <string>
#include <vector>

namespace ledboard
{

struct BoardSelector {
    std::string text;                // as written
    std::optional<Endpoint> address; // ADDRESS or ADDRESS:PORT; otherwise an identifier, a MAC or a name
};

// Throws VerbError(kUsage) for what can be no board: an empty text, a port out of range.
BoardSelector ParseSelector(const std::string &text);

// How well a board fits; the best fit of all boards counts. Small and capital letters differ only in the
// exact grades.
enum class Match { kNone, kNameLoosely, kName, kIdLoosely, kExact };
Match MatchBoard(const BoardSelector &selector, const Board &board);

// The board that the selector means. Throws VerbError: kNoSuchBoard, or kUsage when it fits several equally.
const Board &SelectBoard(const BoardSelector &selector, const std::vector<Board> &boards);

} // namespace ledboard
