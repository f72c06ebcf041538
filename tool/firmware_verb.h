// SPDX-License-Identifier: MIT
// tool/firmware_verb.h: "ledboard firmware version|install|result"
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineFirmware(CLI::App &command);

} // namespace ledboard
