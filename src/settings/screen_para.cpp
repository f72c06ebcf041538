// SPDX-License-Identifier: MIT
#include "settings/screen_para.h"

#include "base/files.h"
#include "base/paths.h"
#include "records/setting_records.h"
#include "state/device_record.h"

#include <optional>

namespace
{

constexpr std::uint32_t kSmallestData = 41; // bytes of records, for the fourth one to be there
constexpr long kSizeOffset = 32;
constexpr long kLevelOffset = 48;
constexpr unsigned kDefaultSide = 128;

std::optional<wire::SettingRecord> RecordAt(std::FILE *file, long offset)
{
    wire::SettingRecord record{};
    if (std::fseek(file, offset, SEEK_SET) != 0 || std::fread(&record, sizeof record, 1, file) != 1)
        return std::nullopt;
    return record;
}

} // namespace

void GetScreenPara(unsigned &width, unsigned &height, unsigned &level)
{
    const FilePointer file = OpenFile(paths::kBootSetting, "rb");
    if (!file)
        std::fprintf(stderr, "not found /boot/setting.ss.\n");
    const auto header = file ? RecordAt(file.get(), 0) : std::nullopt;
    if (header && header->value >= kSmallestData) {
        // QUIRK size-by-place: the size is whatever stands in the fourth record, its id is not looked at; a
        // search for record 3 would be expected.
        if (const auto size = RecordAt(file.get(), kSizeOffset)) {
            width = size->value & 0xFFFF;
            height = size->value >> 16;
        }
        if (const auto record = RecordAt(file.get(), kLevelOffset))
            level = record->value;
    }
    std::fprintf(stderr, "(w, h): (%d, %d), l: %d.\n", static_cast<int>(width), static_cast<int>(height),
                 static_cast<int>(level));
}

void RefreshScreenSize()
{
    unsigned width = kDefaultSide;
    unsigned height = kDefaultSide;
    unsigned level = 1;
    GetScreenPara(width, height, level);
    g_device.setScreenSize(static_cast<std::int32_t>(width), static_cast<std::int32_t>(height));
}
