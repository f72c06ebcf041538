// SPDX-License-Identifier: MIT
// tool/verbs/upload_verb.h: `ledboard upload BOARD... FOLDER`: replaces the display program of a board.
#pragma once

#include "verbs/verb.h"

namespace ledboard
{

VerbAction DefineUpload(CLI::App &command);

} // namespace ledboard
