// SPDX-License-Identifier: MIT
#include "settings/setting_copies.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/shell.h"
#include "settings/luminance.h"
#include "state/device_record.h"
#include "state/setting_file.h"

namespace
{

constexpr char kUnit[] = "src/serial_thread";

wire::SettingRecord AsBooted(wire::SettingRecord record, std::uint32_t bootLuminance)
{
    if (record.id == wire::kIdLuminance)
        record.value = bootLuminance;
    if (record.id == wire::kIdCleared)
        record.value = 0;
    return record;
}

void CopyRecords(std::FILE *working, std::uint32_t bootLuminance)
{
    // A working copy that a power cut left empty must not replace the boot copy.
    std::optional<wire::SettingRecord> record = ReadSetting(working);
    if (!record)
        return;
    FileReplacement boot(paths::kBootSetting);
    if (boot.Stream() == nullptr) {
        DiagErrno(kUnit, "CopySettingToBoot", __LINE__, "open /boot/setting.ss: ");
        return;
    }
    for (; record; record = ReadSetting(working)) {
        const wire::SettingRecord booted = AsBooted(*record, bootLuminance);
        std::fwrite(&booted, sizeof booted, 1, boot.Stream());
    }
    if (!boot.Commit())
        DiagErrno(kUnit, "CopySettingToBoot", __LINE__, "write /boot/setting.ss: ");
}

} // namespace

std::optional<std::uint32_t> FindSetting(const SettingLock &, std::uint32_t id)
{
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    if (!file)
        return std::nullopt;
    while (const auto record = ReadSetting(file.get())) {
        if (record->id == id)
            return record->value;
    }
    return std::nullopt;
}

unsigned FpgaFamily()
{
    constexpr int kFamilyShift = 16;
    return (static_cast<std::uint32_t>(g_device.Copy().fpga) >> kFamilyShift) & 0xFF;
}

unsigned ComputeLuminanceOfFile(const SettingLock &)
{
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    const auto panel = file ? ReadPanel(file.get()) : std::nullopt;
    return panel ? LargestLuminance(*panel, FpgaFamily()) : 0;
}

void RewriteBootCopy(const SettingLock &lock, bool computed)
{
    // QUIRK boot-at-maximum: the board boots at the highest luminance with parameter 11 off, whatever is in
    // use; an equal copy would be expected.
    const std::uint32_t bootLuminance =
        computed ? ComputeLuminanceOfFile(lock) : FindSetting(lock, wire::kIdMaxLuminance).value_or(1);
    if (const FilePointer working = OpenFile(paths::kSetting, "rb"))
        CopyRecords(working.get(), bootLuminance);
    RunShell("sync");
}

void CopySettingToBoot(bool computed)
{
    const SettingLock lock;
    RewriteBootCopy(lock, computed);
}

void RefreshScreenSize()
{
    ScreenSize size = kDefaultScreenSize;
    unsigned luminance = 1;
    GetScreenPara(size.width, size.height, luminance);
    g_device.setScreenSize(static_cast<std::int32_t>(size.width), static_cast<std::int32_t>(size.height));
}

void TakePlayerSettings(const SettingLock &lock)
{
    RunShell("cp /home/root/setting.ss /home/root/plexa_data/setting.ss");
    SyncFile(paths::kSetting);
    RewriteBootCopy(lock, true);
}
