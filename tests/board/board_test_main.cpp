// SPDX-License-Identifier: MIT
// Every test runs as the PC that the boards hang on; see board/pc_side.h.
#include "pc_side.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    setenv("LEDBOARD_BIN_DIR", program.parent_path().c_str(), 0);
    board::EnterPcSide();
    return RUN_ALL_TESTS();
}
