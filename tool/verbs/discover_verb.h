// SPDX-License-Identifier: MIT
// tool/verbs/discover_verb.h: `ledboard discover`: a table of all boards that answer.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineDiscover(CLI::App &command);

} // namespace ledboard
