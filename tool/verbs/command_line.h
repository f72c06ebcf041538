// SPDX-License-Identifier: MIT
// tool/verbs/command_line.h: reads the command line, runs the verb, and makes an exit status of every end.
#pragma once

namespace ledboard
{

int RunTool(int argc, const char *const *argv);

} // namespace ledboard
