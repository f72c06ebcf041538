// SPDX-License-Identifier: MIT
// tool/verbs/command_line.h: the command line: reads it, runs the verb, turns every end into an exit status.
#pragma once

namespace ledboard
{

int RunTool(int argc, const char *const *argv);

} // namespace ledboard
