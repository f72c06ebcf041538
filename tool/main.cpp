// SPDX-License-Identifier: MIT
#include "verbs/command_line.h"

int main(int argc, char **argv)
{
    return ledboard::RunTool(argc, argv);
}
