// SPDX-License-Identifier: MIT
// src/state/setting_file.h: the format of the settings file "setting.ss", and what the boot copy says about
// the screen (docs/protocols.md, "Files").
//
// The boot copy is replaced as a whole, so that any thread may read it at any time. The working copy is
// changed in place: only the setting service opens it, with its lock held.
#pragma once

#include "records/setting_records.h"

#include <cstdio>
#include <optional>

// The next whole record; nothing at the end, or when less than a record is left. Read from its start, a file
// gives its header as the first record: id 18541 + 65536 * count, the data length as the value.
std::optional<wire::SettingRecord> ReadSetting(std::FILE *file);

// Checks the header of a file opened at its start and leaves the file at its first record. Returns the number
// of records that the header announces, 0 if it is invalid (logged).
unsigned ReadSettingHeader(std::FILE *file);

// Stores `value` in the first record with this id of a file opened for update, and syncs the file (a failure
// is logged). 1 written, 0 not written, nothing if no record has the id.
std::optional<int> PatchSetting(std::FILE *file, std::uint32_t id, std::uint32_t value);

struct ScreenSize {
    unsigned width, height; // pixels
};
constexpr ScreenSize kDefaultScreenSize = {128, 128}; // of a board whose settings do not give one

// The fourth and the sixth record; empty if the file is too short for it.
struct BootScreen {
    std::optional<ScreenSize> size;
    std::optional<std::uint32_t> luminance;
};
std::optional<BootScreen> ReadBootScreen(); // of the boot copy; nothing if that cannot be opened

// The same with a line on standard error. An output that the boot copy does not give stays as it was; `level`
// is the luminance.
void GetScreenPara(unsigned &width, unsigned &height, unsigned &level);
