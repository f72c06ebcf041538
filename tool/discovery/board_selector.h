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
    std::optional<Endpoint> address; // of ADDRESS or ADDRESS:PORT; nullopt: an identifier, a MAC or a name
};

// Throws VerbError(kUsage) for an empty text and for a port out of range.
BoardSelector ParseSelector(const std::string &text);

// How well a board matches, from worst to best; the best match of all boards counts. The loose grades ignore
// case.
enum class Match { kNone, kNameLoosely, kName, kIdLoosely, kExact };
Match MatchBoard(const BoardSelector &selector, const Board &board);

// The board that the selector means. Throws VerbError: kNoSuchBoard, or kUsage if several match equally well.
const Board &SelectBoard(const BoardSelector &selector, const std::vector<Board> &boards);

} // namespace ledboard
