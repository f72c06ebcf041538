// SPDX-License-Identifier: MIT
// virtual_board/machine/pc_side.h: turns the calling process into the PC that boards hang on.
#pragma once

#include <string>

namespace board
{

// Where everything of the boards lives on the PC side: in the private "/run" that EnterPcSide makes.
constexpr char kPcFolder[] = "/run/virtual-board";

// Call first in main, before any thread exists. Returns in a child process that has its own mount, network,
// process, IPC and host name space; the original process only waits for it and ends with its exit status or
// signal. Whatever way one of the two ends, SIGKILL included, every process, mount, interface and file made
// after this call is gone: files of the boards lie on a tmpfs of the private mount name space.
//
// Prints what is missing and exits with status 1 where it cannot work (no root, no namespaces).
void EnterPcSide();

// The folder of the running program, as it was named before EnterPcSide: behind it, /proc/self/exe of a
// program in a changed root names a path outside.
const std::string &ProgramFolder();

} // namespace board
