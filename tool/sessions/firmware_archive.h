// SPDX-License-Identifier: MIT
// tool/sessions/firmware_archive.h: a firmware archive on this PC: a gzip-compressed tar with "update.sh" at
// its top.
#pragma once

#include <string>

namespace ledboard
{

// Returns the bytes of the archive, which is unpacked in memory as a check. Throws VerbError(kFailed): no
// such file, not gzip, truncated, not a tar, or without an "update.sh" that could be run.
std::string ReadFirmwareArchive(const std::string &path);

} // namespace ledboard
