// SPDX-License-Identifier: MIT
// tool/verbs/device_verbs.h: verbs for the board itself: `ledboard clock`, `name`, `identity`,
// `reboot-schedule`.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineClock(CLI::App &command);
VerbAction DefineName(CLI::App &command);
VerbAction DefineIdentity(CLI::App &command);
VerbAction DefineRebootSchedule(CLI::App &command);

} // namespace ledboard
