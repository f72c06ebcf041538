// SPDX-License-Identifier: MIT
// tool/verbs/modem_verb.h: "ledboard modem": how a board's 3G modem is and what it has received.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineModem(CLI::App &command);

} // namespace ledboard
