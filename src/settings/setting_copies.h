// SPDX-License-Identifier: MIT
// src/settings/setting_copies.h: the copies of the settings file (docs/protocols.md, "Files"). Callers hold
// the setting service's lock.
#pragma once

#include "base/files.h"
#include "records/setting_records.h"

#include <optional>

// The value of the first record with this id in the working copy.
std::optional<std::uint32_t> FindSetting(std::uint32_t id);

unsigned FpgaFamily(); // the driver chips, as the FPGA's version in the device record names them

// The highest luminance that the working copy allows, 0 when it does not say or nothing passes.
unsigned ComputeLuminanceOfFile();

// The boot copy becomes the working copy with record 9 at the highest luminance (`computed`: worked out
// afresh, else record 254 or 1) and record 11 at 0; then everything is synced. A working copy without a whole
// record leaves the boot copy alone.
void RewriteBootCopy(bool computed);

// The same for callers that do not hold the lock.
void CopySettingToBoot(bool computed);

// Takes the screen size of the boot copy into the device record; 128 by 128 if the file does not give it.
void RefreshScreenSize();

// Runs a shell command that brings `path` into place, then syncs the file and its name.
void RunAndSync(const char *command, const char *path);
