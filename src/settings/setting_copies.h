// SPDX-License-Identifier: MIT
// src/settings/setting_copies.h: the copies of the settings file (docs/protocols.md, "Files"): the working
// copy, which is in use, the boot copy, which is made from it, and the player's.
//
// Only the setting service opens the working copy, with its lock held. The boot copy is replaced as a whole,
// so that any thread may read it.
#pragma once

#include "settings/setting_lock.h"

#include <cstdint>
#include <optional>

// The value of the first record with this id in the working copy; nothing without such a record or a file.
std::optional<std::uint32_t> FindSetting(const SettingLock &lock, std::uint32_t id);

// The family of the panel's driver chips (luminance.h), which the FPGA's version in the device record names.
// Any thread.
unsigned FpgaFamily();

// The highest luminance that the panel of the working copy permits, 1 to 1000; 0 if parameters are missing or
// not even 1 is possible.
unsigned ComputeLuminanceOfFile(const SettingLock &lock);

// Replaces the boot copy by the working copy with the highest luminance in record 9 and 0 in record 11, then
// runs "sync". The luminance is computed, or, with `computed` false, that of record 254, or 1 without one. A
// working copy without a whole record leaves the boot copy as it is; failures are logged.
void RewriteBootCopy(const SettingLock &lock, bool computed);

// The same for a caller without the lock; any thread.
void CopySettingToBoot(bool computed);

// Makes the player's copy the working copy. The boot copy follows.
void TakePlayerSettings(const SettingLock &lock);

// Puts the screen size of the boot copy, or 128 by 128 if that does not hold one, into the device record. Any
// thread.
void RefreshScreenSize();
