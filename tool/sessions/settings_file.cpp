// SPDX-License-Identifier: MIT
#include "sessions/settings_file.h"

#include "common/pc/text.h"
#include "common/pc/verb_error.h"

#include <fmt/format.h>

namespace ledboard
{

namespace
{

struct NameRow {
    std::uint32_t id;
    const char *name;
};
constexpr NameRow kNames[] = {
    {wire::kIdScreenSize, "screen-size"},
    {wire::kIdScan, "scan"},
    {wire::kIdLuminance, "luminance"},
    {wire::kIdCleared, "off-at-boot"},
    {wire::kIdPulseIndex, "pulse-index"},
    {wire::kIdHeight, "scan-rows"},
    {wire::kIdGrayBits, "gray-bits"},
    {wire::kIdModelType, "model-type"},
    {wire::kIdPulseBank, "pulse-bank"},
    {wire::kIdW2HFactor, "w2h-factor"},
    {wire::kIdMbiClock, "clock-index"},
    {wire::kIdWidthSelect, "width-select"},
    {wire::kIdGap, "gap"},
    {wire::kIdMaxLuminance, "max-luminance"},
};

std::string SizeText(std::uint32_t size)
{
    return fmt::format("{}x{}", size & 0xFFFF, size >> 16);
}

std::optional<std::uint32_t> IdOf(const std::string &text)
{
    for (const NameRow &row : kNames) {
        if (text == row.name)
            return row.id;
    }
    const auto number = ParseNumber(text);
    return number && *number <= 0xFF ? number : std::nullopt;
}

std::optional<std::uint32_t> ValueOf(const std::string &text)
{
    // A size has the width in its low half and the height in its high half.
    const std::size_t cross = text.find('x');
    if (cross == std::string::npos || text.starts_with("0x"))
        return ParseNumber(text);
    const auto width = ParseNumber(text.substr(0, cross));
    const auto height = ParseNumber(text.substr(cross + 1));
    if (!width || !height || *width > 0xFFFF || *height > 0xFFFF)
        return std::nullopt;
    return *width | *height << 16;
}

} // namespace

SettingsFile ParseSettings(wire::Bytes file, const std::string &what)
{
    const auto header = wire::Read<wire::SettingFileHeader>(file);
    if (!header || header->headId != wire::kSettingHeadId)
        throw VerbError(ExitStatus::kFailed, what + " is not a settings file");
    const std::size_t length = header->count * sizeof(wire::SettingRecord);
    if (header->count == 0 || header->dataLength != length || file.size() < sizeof *header + length)
        throw VerbError(ExitStatus::kFailed, what + " is damaged: its header does not fit its records");
    SettingsFile settings;
    for (std::size_t at = sizeof *header; at < sizeof *header + length; at += sizeof(wire::SettingRecord))
        settings.records.push_back(*wire::Read<wire::SettingRecord>(file, at));
    settings.tailBytes = file.size() - sizeof *header - length;
    return settings;
}

const char *SettingName(std::uint32_t id)
{
    for (const NameRow &row : kNames) {
        if (row.id == id)
            return row.name;
    }
    return "";
}

std::pair<std::uint8_t, std::uint32_t> ParseAssignment(const std::string &text)
{
    const std::size_t equals = text.find('=');
    const auto id = IdOf(text.substr(0, equals));
    const auto value = equals == std::string::npos ? std::nullopt : ValueOf(text.substr(equals + 1));
    if (!id)
        throw VerbError(ExitStatus::kUsage, "'" + text + "' names no parameter (a name, or 0 to 255)");
    if (!value)
        throw VerbError(ExitStatus::kUsage, "'" + text + "' has no value (a number, or WIDTHxHEIGHT)");
    return {static_cast<std::uint8_t>(*id), *value};
}

std::string SettingText(const wire::SettingRecord &record, const SettingsFile &file)
{
    switch (record.id) {
    case wire::kIdScreenSize:
        return SizeText(record.value);
    case wire::kIdLuminance:
        if (const auto most = FindValue(file, wire::kIdMaxLuminance))
            return fmt::format("{} of {}", std::uint32_t{record.value}, *most);
        return fmt::format("{}", std::uint32_t{record.value});
    case wire::kIdGrayBits:
        return fmt::format("{} ({} bit planes)", std::uint32_t{record.value}, record.value + 1U);
    case wire::kIdModelType:
        return fmt::format("{} (model type {})", std::uint32_t{record.value}, record.value == 0 ? 1 : 0);
    default:
        return fmt::format("{}", std::uint32_t{record.value});
    }
}

nlohmann::json SettingsJson(const SettingsFile &file)
{
    nlohmann::json records = nlohmann::json::array();
    for (const wire::SettingRecord &record : file.records) {
        nlohmann::json row = {{"id", std::uint32_t{record.id}}, {"value", std::uint32_t{record.value}}};
        if (*SettingName(record.id) != '\0')
            row["name"] = SettingName(record.id);
        if (record.id == wire::kIdScreenSize) {
            row["width"] = record.value & 0xFFFFU;
            row["height"] = record.value >> 16U;
        }
        records.push_back(row);
    }
    return {{"records", records}, {"tailBytes", file.tailBytes}};
}

std::optional<std::uint32_t> FindValue(const SettingsFile &file, std::uint32_t id)
{
    for (const wire::SettingRecord &record : file.records) {
        if (record.id == id)
            return record.value;
    }
    return std::nullopt;
}

std::string ScreenText(const SettingsFile &file)
{
    const auto size = FindValue(file, wire::kIdScreenSize);
    return size ? SizeText(*size) : "?";
}

} // namespace ledboard
