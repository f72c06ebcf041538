// SPDX-License-Identifier: MIT
// tool/verbs/verbs.h: all verbs. Each function adds the arguments of its verb to `command` and returns what
// runs the verb.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineBootScreen(CLI::App &command);     // screen_verbs.cpp
VerbAction DefineBrightness(CLI::App &command);     // screen_verbs.cpp
VerbAction DefineClock(CLI::App &command);          // device_verbs.cpp
VerbAction DefineDiscover(CLI::App &command);       // discover_verb.cpp
VerbAction DefineFirmware(CLI::App &command);       // firmware_verb.cpp
VerbAction DefineFpgaFrame(CLI::App &command);      // screen_verbs.cpp
VerbAction DefineIdentity(CLI::App &command);       // device_verbs.cpp
VerbAction DefineInfo(CLI::App &command);           // info_verb.cpp
VerbAction DefineLuminance(CLI::App &command);      // screen_verbs.cpp
VerbAction DefineModem(CLI::App &command);          // modem_verb.cpp
VerbAction DefineName(CLI::App &command);           // device_verbs.cpp
VerbAction DefineNetwork(CLI::App &command);        // network_verb.cpp
VerbAction DefineRebootSchedule(CLI::App &command); // device_verbs.cpp
VerbAction DefineServer(CLI::App &command);         // server_verb.cpp
VerbAction DefineSettings(CLI::App &command);       // settings_verb.cpp
VerbAction DefineSlantLine(CLI::App &command);      // screen_verbs.cpp
VerbAction DefineSmartSetting(CLI::App &command);   // screen_verbs.cpp
VerbAction DefineUpload(CLI::App &command);         // upload_verb.cpp

} // namespace ledboard
