// SPDX-License-Identifier: MIT
// tool/verbs/settings_verb.h: `ledboard settings show|save|load|set`: the screen settings of a board.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineSettings(CLI::App &command);

} // namespace ledboard
