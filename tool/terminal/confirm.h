// SPDX-License-Identifier: MIT
// tool/terminal/confirm.h: asks before something is destroyed.
#pragma once

#include "common/pc/output.h"

#include <string>

namespace ledboard
{

// Returns when the user agrees, or at once if `yes` is set (--yes). `question` names the board and what it
// loses. Throws VerbError: kFailed if the user declines, kUsage if nobody can be asked (--json, no terminal),
// kInterrupted.
void Confirm(Output &output, bool yes, const std::string &question);

} // namespace ledboard
