// SPDX-License-Identifier: MIT
// tool/modem_verb.h: "ledboard modem": how a board's 3G modem is and what it has received.
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineModem(CLI::App &command);

} // namespace ledboard
