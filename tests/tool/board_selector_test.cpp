// SPDX-License-Identifier: MIT
#include "discovery/board_selector.h"

#include "common/address.h"
#include "common/pc/verb_error.h"
#include "example_board.h"

#include <gtest/gtest.h>

namespace ledboard
{

namespace
{

Board MakeBoard(const char *id, const char *mac, const char *name, const char *address)
{
    Board board = ExampleBoard();
    SetFieldText(board.record.id, id);
    SetFieldText(board.record.mac, mac);
    SetFieldText(board.record.name, name);
    board.source.address = Address(address);
    return board;
}

// The address of the board that the text means, or the status of the failure.
std::string Selected(const std::string &text, const std::vector<Board> &boards)
{
    try {
        return Dotted(SelectBoard(ParseSelector(text), boards).source.address);
    } catch (const VerbError &error) {
        return StatusWord(error.Status());
    }
}

} // namespace

TEST(BoardSelector, FindsTheOneBoardThatIsMeant)
{
    const std::vector<Board> boards = {
        MakeBoard("C1-0000000001", " 2:fc: 0: 0: 0: 1", "Gate", "10.0.0.1"),
        MakeBoard("C1-0000000002", " 2:fc: 0: 0: 0: 2", "Hall", "10.0.0.2"),
        MakeBoard("C1-0000000003", " 2:fc: 0: 0: 0: 3", "hall", "10.0.0.3"),
        MakeBoard("C1-0000000004", " 2:fc: 0: 0: 0: 4", "Roof", "10.0.0.4"),
        MakeBoard("C1-0000000004", " 2:fc: 0: 0: 0: 5", "Roof", "10.0.0.5"),
        MakeBoard("C1-0000000006", " 2:fc: 0: 0: 0: 6", "C1-0000000001", "10.0.0.6"),
        MakeBoard("C1-\x1b", " 2:fc: 0: 0: 0: 7", "tower\x1b", "10.0.0.7"),
    };
    const std::pair<const char *, const char *> rows[] = {
        {"C1-0000000001", "10.0.0.1"}, // an identifier has priority over the same text as a name
        {"c1-0000000002", "10.0.0.2"},
        {"hall", "10.0.0.3"}, // written exactly so
        {"HALL", "usage"},    // two fit equally
        {"gate", "10.0.0.1"},
        {"C1-0000000004", "usage"},        // an identifier given twice
        {"02:FC:00:00:00:05", "10.0.0.5"}, // the MAC distinguishes them
        {"10.0.0.4", "10.0.0.4"},
        {"10.0.0.99", "no-such-board"},
        {"10.0.0.4:12000", "no-such-board"}, // it answers on another port
        {"C1-000000000", "no-such-board"},
        {"C1-\\x1b", "10.0.0.7"}, // as it is shown
        {"tower\x1b", "10.0.0.7"},
        {"", "usage"},
        {"10.0.0.4:0", "usage"},
        {"10.0.0.4:65536", "usage"},
        {"10.0.0.4:80x", "usage"},
    };
    for (const auto &[text, expected] : rows)
        EXPECT_EQ(Selected(text, boards), expected) << text;
}

TEST(BoardSelector, AddressesMayCarryTheCustomPort)
{
    EXPECT_EQ(ParseSelector("10.0.0.4").address, (Endpoint{Address("10.0.0.4"), 8878}));
    EXPECT_EQ(ParseSelector("10.0.0.4:12000").address, (Endpoint{Address("10.0.0.4"), 12000}));
    EXPECT_FALSE(ParseSelector("10.0.0").address);
    EXPECT_FALSE(ParseSelector("02:fc:00:00:00:01").address);
}

} // namespace ledboard
