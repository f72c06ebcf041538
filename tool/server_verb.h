// SPDX-License-Identifier: MIT
// tool/server_verb.h: "ledboard server show|set|forget"
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineServer(CLI::App &command);

} // namespace ledboard
