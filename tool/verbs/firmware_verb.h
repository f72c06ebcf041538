// SPDX-License-Identifier: MIT
// tool/verbs/firmware_verb.h: "ledboard firmware version|install|result"
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineFirmware(CLI::App &command);

} // namespace ledboard
