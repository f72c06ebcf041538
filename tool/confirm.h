// SPDX-License-Identifier: MIT
// tool/confirm.h: the question before something is destroyed.
#pragma once

#include "verb.h"

namespace ledboard
{

// Returns when the user agrees or has said --yes; `question` names the board and what it loses. Throws
// ToolError: kFailed when the user declines, kUsage when nobody can be asked (--json, no terminal),
// kInterrupted.
void Confirm(ToolContext &context, const std::string &question);

} // namespace ledboard
