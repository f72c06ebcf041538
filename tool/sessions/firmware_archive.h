// SPDX-License-Identifier: MIT
// tool/sessions/firmware_archive.h: a firmware archive on the PC's disk: a gzip-compressed tar with
// "update.sh" at its top.
#pragma once

#include <string>

namespace ledboard
{

// Reads the archive whole and unpacks it in memory. Throws VerbError(kFailed) that says what is wrong: no
// such file, no gzip, cut off, no tar, no "update.sh" that could be run.
std::string ReadFirmwareArchive(const std::string &path);

} // namespace ledboard
