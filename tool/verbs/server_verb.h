// SPDX-License-Identifier: MIT
// tool/verbs/server_verb.h: "ledboard server show|set|forget"
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineServer(CLI::App &command);

} // namespace ledboard
