// SPDX-License-Identifier: MIT
// firmware_verb.h — "ledboard firmware version|install|result"
#pragma once

#include "verb.h"

namespace ledboard
{

VerbAction DefineFirmware(CLI::App &command);

} // namespace ledboard
