// SPDX-License-Identifier: MIT
// tool/settings_verb.h: `ledboard settings show|save|load|set`: the screen settings of a board.
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineSettings(CLI::App &command);

} // namespace ledboard
