// SPDX-License-Identifier: MIT
// tool/terminal/confirm.h: the question before something is destroyed.
#pragma once

#include "common/pc/output.h"

#include <string>

namespace ledboard
{

// Returns when the user agrees, and at once when `yes` says that he has (--yes); `question` names the board
// and what it loses. Throws VerbError: kFailed when the user declines, kUsage when nobody can be asked
// (--json, no terminal), kInterrupted.
void Confirm(Output &output, bool yes, const std::string &question);

} // namespace ledboard
