// SPDX-License-Identifier: MIT
// virtual_board/machine/power.h: the lock that a board holds while it goes up or down.
#pragma once

#include <mutex>

namespace board
{

// One for each board. Whoever plugs something in or starts the daemon takes it too, and so waits until the
// board is up or down. A function that is called with the lock held has it among its arguments.
using PowerMutex = std::mutex;
using PowerLock = std::lock_guard<PowerMutex>;

} // namespace board
