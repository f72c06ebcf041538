// SPDX-License-Identifier: MIT
// tool/verbs/info_verb.h: `ledboard info BOARD...`: the whole record of a board.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineInfo(CLI::App &command);

} // namespace ledboard
