// SPDX-License-Identifier: MIT
#include "settings/setting_parameters.h"

#include "base/files.h"
#include "base/paths.h"
#include "settings/fpga_writer.h"
#include "settings/luminance.h"
#include "settings/setting_copies.h"
#include "state/setting_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr int kOpenUpdateLine = 189;

} // namespace

int SettingParameters::SendAll(const SettingLock &lock)
{
    constexpr FrameTrace kOpenTrace = {"serial writeted: ", "%2x "};
    constexpr FrameTrace kBlockTrace = {"serial init writed: ", "%3x"};
    fpga_->SendTraced(lock, MakeFpgaFrame(kControlOpen, 0), kOpenTrace);
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    if (!file)
        return 0;
    const unsigned count = ReadSettingHeader(file.get());
    if (count == 0)
        return 0;
    fpga_->SendTraced(lock, MakeFpgaFrame(kControlParameters, 0), kBlockTrace);
    for (unsigned index = 0; index < count; ++index) {
        const auto record = ReadSetting(file.get());
        if (!record) {
            std::printf("setting file error\n");
            break;
        }
        fpga_->Send(lock, record->id, record->value);
        if (record->id == wire::kIdMaxLuminance)
            maxLuminance = record->value;
        if (record->id == wire::kIdLuminance)
            luminance = record->value;
    }
    fpga_->SendTraced(lock, MakeFpgaFrame(kControlParameters, 1), kBlockTrace);
    return 1;
}

void SettingParameters::Write(const SettingLock &lock, std::uint32_t id, std::uint32_t value)
{
    std::fprintf(stderr, "cmd: %d, data: %d.\n", static_cast<int>(id), static_cast<int>(value));
    fpga_->Send(lock, id, value);
    if (id == wire::kIdMaxLuminance) {
        fpga_->Send(lock, wire::kIdLuminance, luminance);
        SetBrightness(lock, static_cast<std::uint8_t>(value));
    } else {
        Save(lock, id, value);
    }
    RefreshScreenSize();
}

void SettingParameters::Save(const SettingLock &lock, std::uint32_t id, std::uint32_t value)
{
    if (id == wire::kIdScreenSize && FindSetting(lock, id).value_or(0) == value) {
        std::fprintf(stderr, "screen size not changed.\n");
        return;
    }
    std::fprintf(stderr, "serial rts write: (cmd, data), (%d, %d).\n", static_cast<int>(id),
                 static_cast<int>(value));
    {
        const FilePointer file = OpenFile(paths::kSetting, "rb+");
        if (!file) {
            std::fprintf(stderr, "open setting.ss, %d, %s.\n", kOpenUpdateLine, std::strerror(errno));
            return;
        }
        if (const auto written = PatchSetting(file.get(), id, value)) {
            std::printf("rts write: %d.\n", *written);
            RewriteBootCopy(lock, true);
        }
    }
    if (id == wire::kIdScreenSize)
        ScreenSizeChanged(lock);
}

// A larger panel takes longer to refresh, so that it permits less luminance.
void SettingParameters::ScreenSizeChanged(const SettingLock &lock)
{
    maxLuminance = ComputeLuminanceOfFile(lock);
    if (maxLuminance == 0)
        maxLuminance = 1;
    if (luminance > maxLuminance)
        luminance = maxLuminance;
    Save(lock, wire::kIdMaxLuminance, maxLuminance);
    Save(lock, wire::kIdLuminance, luminance);
    fpga_->Send(lock, wire::kIdLuminance, luminance);
}

void SettingParameters::LoadCaches(const SettingLock &)
{
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    if (!file) {
        maxLuminance = 1;
        return;
    }
    while (const auto record = ReadSetting(file.get())) {
        if (record->id == wire::kIdLuminance)
            luminance = record->value;
        if (record->id == wire::kIdMaxLuminance)
            maxLuminance = record->value;
    }
    if (maxLuminance == 0 || maxLuminance > kMaxLuminance)
        maxLuminance = 1;
    if (luminance == 0 || luminance > kMaxLuminance)
        luminance = 1;
    else if (luminance > maxLuminance)
        luminance = maxLuminance;
}

void SettingParameters::SetBrightness(const SettingLock &lock, std::uint8_t percent)
{
    constexpr std::uint32_t kMaxPercent = 100;
    constexpr std::uint32_t kFullScale = 255;
    constexpr std::uint32_t kColours = 3;
    brightnessPercent = percent == 0 || percent > kMaxPercent ? kMaxPercent : percent;
    for (std::uint32_t colour = 0; colour < kColours; ++colour)
        fpga_->Send(lock, wire::kIdBrightnessRed + colour, brightnessPercent * kFullScale / kMaxPercent);
}
