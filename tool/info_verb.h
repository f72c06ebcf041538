// SPDX-License-Identifier: MIT
// tool/info_verb.h: `ledboard info BOARD...`: the whole record of a board.
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineInfo(CLI::App &command);

} // namespace ledboard
