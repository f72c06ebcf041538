// SPDX-License-Identifier: MIT
// virtual_board/machine/mounts.h: mounts on the PC side.
#pragma once

#include <string>

namespace board
{

// mount(2). Throws std::system_error.
void Mount(const char *source, const std::string &target, const char *type, unsigned long flags,
           const std::string &data = {});

// Detaches `target`; what still uses it may go on. Nothing if it is not mounted.
void Unmount(const std::string &target);

} // namespace board
