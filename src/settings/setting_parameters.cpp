// SPDX-License-Identifier: MIT
// The settings file and the frames to the FPGA.
#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "records/fpga_frame.h"
#include "settings/luminance.h"
#include "settings/serial_thread.h"
#include "settings/setting_copies.h"
#include "settings/setting_lock.h"
#include "state/device_record.h"
#include "state/setting_file.h"

#include <cerrno>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr int kOpenUpdateLine = 189;

enum ControlCode : std::uint8_t {
    kControlOpen = 1,       // value 0; ends the smart setting too
    kControlParameters = 2, // value 0 they begin, 1 they end
};

std::string FrameText(const wire::FpgaFrame &frame, const char *format)
{
    std::string text;
    for (const std::byte byte : wire::BytesOf(frame)) {
        char digits[8];
        std::snprintf(digits, sizeof digits, format, std::to_integer<unsigned>(byte));
        text += digits;
    }
    return text;
}

wire::FpgaFrame MakeFrame(std::uint32_t command, std::uint32_t value)
{
    return {.head = wire::kFpgaMark,
            .command = static_cast<std::uint8_t>(command),
            .value = value,
            .tail = wire::kFpgaMark};
}

} // namespace

int KSerialThread::SendBytesToFpga(wire::Bytes bytes)
{
    std::array<char, sizeof(wire::FpgaFrame)> frame{};
    std::memcpy(frame.data(), bytes.data(), frame.size());
    const int written = serial->Write(frame.data(), static_cast<int>(frame.size()));
    if (serial->IsLost() != lineWasLost_) {
        lineWasLost_ = serial->IsLost();
        Diag(kUnit, __func__, __LINE__, lineWasLost_ ? "serial line lost." : "serial line is back.");
    } else if (written != static_cast<int>(frame.size()) && !lineWasLost_) {
        DiagErrno(kUnit, __func__, __LINE__, "serial write %d: ", written);
    }
    return written;
}

int KSerialThread::SendFrame(std::uint32_t command, std::uint32_t value)
{
    return SendBytesToFpga(wire::BytesOf(MakeFrame(command, value)));
}

int KSerialThread::SendLoggedFrame(std::uint32_t command, std::uint32_t value, const char *label,
                                   const char *format)
{
    const wire::FpgaFrame frame = MakeFrame(command, value);
    const int written = SendBytesToFpga(wire::BytesOf(frame));
    std::printf("%s%s\n", label, FrameText(frame, format).c_str());
    return written;
}

int KSerialThread::HandleFrame()
{
    constexpr unsigned kFrameLength = 1 + sizeof(wire::FpgaFrame);
    const auto length = std::to_integer<unsigned>(packet[0]);
    if (length != kFrameLength) {
        std::printf("cmd: serial cmd, lengths error: %d.\n", static_cast<int>(length));
        return 0;
    }
    const auto frame = *wire::Read<wire::FpgaFrame>(packet, sizeof(wire::SettingHeader));
    SendBytesToFpga(wire::BytesOf(frame));
    std::printf("serial writed: %s\n", FrameText(frame, "%x ").c_str());
    if (frame.command == wire::kIdModelType)
        g_device.setModelType(static_cast<std::int32_t>(frame.value));
    if (rtsFlag)
        SaveParameter(frame.command, frame.value);
    return 1;
}

int KSerialThread::SendSettings()
{
    SendLoggedFrame(kControlOpen, 0, "serial writeted: ", "%2x ");
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    if (!file)
        return 0;
    const unsigned count = ReadSettingHeader(file.get());
    if (count == 0)
        return 0;
    SendLoggedFrame(kControlParameters, 0, "serial init writed: ", "%3x");
    for (unsigned index = 0; index < count; ++index) {
        const auto record = ReadSetting(file.get());
        if (!record) {
            std::printf("setting file error\n");
            break;
        }
        SendFrame(record->id, record->value);
        if (record->id == wire::kIdMaxLuminance)
            maxLuminance = record->value;
        if (record->id == wire::kIdLuminance)
            luminance = record->value;
    }
    SendLoggedFrame(kControlParameters, 1, "serial init writed: ", "%3x");
    return 1;
}

void KSerialThread::SendCloseSmartSetting()
{
    SendLoggedFrame(kControlOpen, 0, "serial writed: ", "%2x ");
}

void KSerialThread::SetBrightness(std::uint8_t percent)
{
    constexpr unsigned kMostPercent = 100;
    brightnessPercent = percent == 0 || percent > kMostPercent ? kMostPercent : percent;
}

void KSerialThread::SendBrightness()
{
    constexpr unsigned kFullScale = 255;
    constexpr std::uint32_t kColours = 3;
    for (std::uint32_t colour = 0; colour < kColours; ++colour)
        SendFrame(wire::kIdBrightnessRed + colour, brightnessPercent * kFullScale / 100);
}

void KSerialThread::SaveParameter(std::uint32_t id, std::uint32_t value)
{
    if (id == wire::kIdScreenSize && FindSetting(id).value_or(0) == value) {
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
            RewriteBootCopy(true);
        }
    }
    if (id == wire::kIdScreenSize)
        ScreenSizeChanged();
}

void KSerialThread::ScreenSizeChanged()
{
    maxLuminance = ComputeLuminanceOfFile();
    if (maxLuminance == 0)
        maxLuminance = 1;
    if (luminance > maxLuminance)
        luminance = maxLuminance;
    SaveParameter(wire::kIdMaxLuminance, maxLuminance);
    SaveParameter(wire::kIdLuminance, luminance);
    SendFrame(wire::kIdLuminance, luminance);
}

void KSerialThread::LoadCaches()
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
    if (maxLuminance - 1 >= kMostLuminance)
        maxLuminance = 1;
    if (luminance - 1 >= kMostLuminance)
        luminance = 1;
    else if (luminance > maxLuminance)
        luminance = maxLuminance;
}

int KSerialThread::WriteSettingToSerial()
{
    const SettingLock lock;
    return SendSettings();
}

void KSerialThread::WriteSerial(unsigned id, unsigned value)
{
    const SettingLock lock;
    std::fprintf(stderr, "cmd: %d, data: %d.\n", static_cast<int>(id), static_cast<int>(value));
    SendFrame(id, value);
    if (id == wire::kIdMaxLuminance) {
        SetBrightness(static_cast<std::uint8_t>(value));
        SendFrame(wire::kIdLuminance, luminance);
        SendBrightness();
    } else {
        SaveParameter(id, value);
    }
    RefreshScreenSize();
}

void KSerialThread::RTSaveSerialPara(unsigned id, unsigned value)
{
    const SettingLock lock;
    SaveParameter(id, value);
}

int KSerialThread::WriteFPGAState(unsigned code, unsigned value)
{
    const SettingLock lock;
    return SendFrame(code, value);
}

void KSerialThread::WriteCloseSmartSetting()
{
    const SettingLock lock;
    SendCloseSmartSetting();
}

void KSerialThread::TakePlayerCopy()
{
    const SettingLock lock;
    CopyFromPlayer();
}

void KSerialThread::CopyFromPlayer()
{
    RunAndSync("cp /home/root/setting.ss /home/root/plexa_data/setting.ss", paths::kSetting);
    RewriteBootCopy(true);
}

unsigned KSerialThread::GetScreenSize()
{
    const SettingLock lock;
    return FindSetting(wire::kIdScreenSize).value_or(0);
}

unsigned KSerialThread::GetLuminance()
{
    const SettingLock lock;
    LoadCaches();
    return maxLuminance;
}

unsigned KSerialThread::ComputeMaxLuminance()
{
    const SettingLock lock;
    return ComputeLuminanceOfFile();
}

bool KSerialThread::ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m,
                                   unsigned g, unsigned k, unsigned f) const
{
    return RefreshPasses(FpgaFamily(), t, w, h, s, n, m, g, k, f);
}

bool KSerialThread::ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n,
                                   unsigned m) const
{
    return RefreshPasses(t, w, h, s, n, m);
}
