// SPDX-License-Identifier: MIT
// virtual_board/program/commands.h: commands that this program becomes, or starts and waits for.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace board
{

// As execvp. Returns only if it failed, with errno.
void Execute(std::vector<std::string> words);

// Waits for a command on this terminal and returns its ExitStatus. From then on this process ignores SIGINT
// and SIGQUIT: what the keys mean is up to the command.
int WaitForCommand(pid_t child);

} // namespace board
