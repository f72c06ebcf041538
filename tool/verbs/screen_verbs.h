// SPDX-License-Identifier: MIT
// tool/verbs/screen_verbs.h: verbs for what is on the screen: `ledboard brightness`, `boot-screen`,
// `luminance`, `smart-setting`, `slant-line`, `fpga-frame`.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineBrightness(CLI::App &command);
VerbAction DefineBootScreen(CLI::App &command);
VerbAction DefineLuminance(CLI::App &command);
VerbAction DefineSmartSetting(CLI::App &command);
VerbAction DefineSlantLine(CLI::App &command);
VerbAction DefineFpgaFrame(CLI::App &command);

} // namespace ledboard
