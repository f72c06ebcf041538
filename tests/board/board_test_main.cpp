// SPDX-License-Identifier: MIT
// Every test runs as the PC that the boards are connected to; see virtual_board/machine/pc_side.h.
#include "machine/pc_side.h"

#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    setenv("LEDBOARD_BIN_DIR", board::ProgramFolder().c_str(), 0);
    board::EnterPcSide();
    return RUN_ALL_TESTS();
}
