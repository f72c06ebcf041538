// SPDX-License-Identifier: MIT
// tests/board/board_test.h: the fixture of the tests on a virtual board.
#pragma once

#include "board/virtual_board.h"

#include <gtest/gtest.h>

#include <memory>

// How many descriptors the daemon has open after the start of all its threads.
inline std::size_t SettledDescriptors(const board::VirtualBoard &board)
{
    EXPECT_TRUE(board.Record().WaitForLog("serial thread socket: wait accept one client."));
    EXPECT_TRUE(board.Record().WaitForLog("/dev/ttyUSB3: "));
    EXPECT_TRUE(board.WaitFor([&] { return !board.Supervisor().Heartbeats().empty(); }));
    return board.Daemon().OpenDescriptors();
}

// Fixture with one board. Change `options`, then Boot(). A failed test shows the daemon's log; a report of a
// sanitizer inside the daemon fails the test.
class BoardTest : public testing::Test
{
protected:
    board::VirtualBoard &Boot()
    {
        board = std::make_unique<board::VirtualBoard>(options);
        board->Boot();
        return *board;
    }

    void TearDown() override
    {
        if (!board)
            return;
        EXPECT_EQ(board->Record().SanitizerReport(), "");
        if (HasFailure())
            std::fprintf(stderr, "--- log of the daemon:\n%s\n---\n", board->Record().LogText().c_str());
    }

    board::Options options;
    std::unique_ptr<board::VirtualBoard> board;
};
