// SPDX-License-Identifier: MIT
// server_verb.h — "ledboard server show|set|forget"
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineServer(CLI::App &command);

} // namespace ledboard
