// SPDX-License-Identifier: MIT
#include "state/setting_file.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"

#include <unistd.h>

namespace
{

constexpr char kUnit[] = "src/serial_thread";

constexpr std::uint32_t kMinDataLength = 41; // five records are not enough
constexpr long kSizeOffset = 32;             // of the fourth record
constexpr long kLuminanceOffset = 48;        // of the sixth record

// At most `size` bytes; what the file does not hold stays 0. Returns the number of bytes read.
std::size_t ReadPiece(std::FILE *file, void *piece, std::size_t size)
{
    return std::fread(piece, 1, size, file);
}

std::optional<wire::SettingRecord> RecordAt(std::FILE *file, long offset)
{
    if (std::fseek(file, offset, SEEK_SET) != 0)
        return std::nullopt;
    return ReadSetting(file);
}

} // namespace

// QUIRK header-as-record: a walk through the settings file starts at offset 0 and takes the header for a
// record, which is copied and compared like any other; the records would be expected to start at 8.
std::optional<wire::SettingRecord> ReadSetting(std::FILE *file)
{
    wire::SettingRecord record{};
    if (std::fread(&record, sizeof record, 1, file) != 1)
        return std::nullopt;
    return record;
}

unsigned ReadSettingHeader(std::FILE *file)
{
    wire::U16 headId(0);
    const std::size_t bytes = ReadPiece(file, &headId, sizeof headId);
    if (bytes == 0) {
        std::printf("setting.ss file is empty. %d\n", static_cast<int>(bytes));
        return 0;
    }
    if (headId != wire::kSettingHeadId) {
        std::printf("setting.ss head id error.\n");
        return 0;
    }
    wire::U16 count(0);
    ReadPiece(file, &count, sizeof count);
    if (count == 0) {
        std::printf("command counts error.\n");
        return 0;
    }
    wire::U32 dataLength(0);
    if (ReadPiece(file, &dataLength, sizeof dataLength) == 0) {
        std::printf("setting.ss file is empty.\n");
        return 0;
    }
    if (dataLength != count * sizeof(wire::SettingRecord)) {
        std::printf("setting.ss header error.\n");
        return 0;
    }
    return count;
}

std::optional<int> PatchSetting(std::FILE *file, std::uint32_t id, std::uint32_t value)
{
    while (const auto record = ReadSetting(file)) {
        if (record->id != id)
            continue;
        const wire::U32 patch(value);
        if (std::fseek(file, -static_cast<long>(sizeof patch), SEEK_CUR) != 0)
            return 0;
        const auto written = static_cast<int>(std::fwrite(&patch, sizeof patch, 1, file));
        if (std::fflush(file) != 0 || fsync(fileno(file)) != 0)
            DiagErrno(kUnit, "RTSaveSerialPara", __LINE__, "write setting.ss: ");
        return written;
    }
    return std::nullopt;
}

std::optional<BootScreen> ReadBootScreen()
{
    const FilePointer file = OpenFile(paths::kBootSetting, "rb");
    if (!file)
        return std::nullopt;
    BootScreen screen;
    const auto header = RecordAt(file.get(), 0);
    if (!header || header->value < kMinDataLength)
        return screen;
    // QUIRK size-by-place: the size is the value of the fourth record, its id is not looked at; a search for
    // record 3 would be expected.
    if (const auto record = RecordAt(file.get(), kSizeOffset))
        screen.size = {.width = record->value & 0xFFFF, .height = record->value >> 16};
    if (const auto record = RecordAt(file.get(), kLuminanceOffset))
        screen.luminance = record->value;
    return screen;
}

void GetScreenPara(unsigned &width, unsigned &height, unsigned &level)
{
    const std::optional<BootScreen> screen = ReadBootScreen();
    if (!screen)
        std::fprintf(stderr, "not found /boot/setting.ss.\n");
    if (screen && screen->size) {
        width = screen->size->width;
        height = screen->size->height;
    }
    if (screen && screen->luminance)
        level = *screen->luminance;
    std::fprintf(stderr, "(w, h): (%d, %d), l: %d.\n", static_cast<int>(width), static_cast<int>(height),
                 static_cast<int>(level));
}
