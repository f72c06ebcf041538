// SPDX-License-Identifier: MIT
// Every test runs as the PC that the boards hang on; see board/pc_side.h.
#include "pc_side.h"

#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    board::EnterPcSide();
    return RUN_ALL_TESTS();
}
