// SPDX-License-Identifier: MIT
// tool/sessions/settings_file.h: the content of a settings file, and the names of its parameters. No sockets.
#pragma once

#include "records/setting_records.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ledboard
{

struct SettingsFile {
    std::vector<wire::SettingRecord> records; // as many as the header says
    std::size_t tailBytes = 0;                // after them
};

// Throws VerbError(kFailed) for a file that a board would not send to its FPGA as a whole; the message begins
// with `what`.
SettingsFile ParseSettings(wire::Bytes file, const std::string &what);

const char *SettingName(std::uint32_t id); // "" for a parameter without a name

// "ID=VALUE" with a number or a name, and a decimal or 0x number, or WIDTHxHEIGHT for the screen size. Throws
// VerbError(kUsage).
std::pair<std::uint8_t, std::uint32_t> ParseAssignment(const std::string &text);

// The value for people: a size as "128x64", the luminance with its maximum.
std::string SettingText(const wire::SettingRecord &record, const SettingsFile &file);

nlohmann::json SettingsJson(const SettingsFile &file);

std::optional<std::uint32_t> FindValue(const SettingsFile &file, std::uint32_t id);
std::string ScreenText(const SettingsFile &file); // "128x64", "?" without a size

} // namespace ledboard
