// SPDX-License-Identifier: MIT
#include "verbs/tool.h"

int main(int argc, char **argv)
{
    return ledboard::RunTool(argc, argv);
}
