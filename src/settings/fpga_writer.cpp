// SPDX-License-Identifier: MIT
#include "settings/fpga_writer.h"

#include "base/diag.h"
#include "base/serial.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

constexpr char kUnit[] = "src/serial_thread";

std::string FrameText(const wire::FpgaFrame &frame, const char *byteFormat)
{
    std::string text;
    for (const std::byte byte : wire::BytesOf(frame)) {
        char digits[8];
        std::snprintf(digits, sizeof digits, byteFormat, std::to_integer<unsigned>(byte));
        text += digits;
    }
    return text;
}

} // namespace

wire::FpgaFrame MakeFpgaFrame(std::uint32_t command, std::uint32_t value)
{
    return {.head = wire::kFpgaMark,
            .command = static_cast<std::uint8_t>(command),
            .value = value,
            .tail = wire::kFpgaMark};
}

FpgaWriter::FpgaWriter() : serial(KSerial::GetInstance()) {}

bool FpgaWriter::Open(const SettingLock &, const char *device)
{
    if (!serial->Open(device)) {
        std::fprintf(stderr, "open serial fail.\n");
        return false;
    }
    if (serial->SetCommConfig(115200, 8, 'n', 1) == -1)
        return false;
    serial->SetFlag(true);
    return true;
}

int FpgaWriter::Send(const SettingLock &, const wire::FpgaFrame &frame)
{
    std::array<char, sizeof frame> bytes;
    std::memcpy(bytes.data(), &frame, bytes.size());
    const int written = serial->Write(bytes.data(), static_cast<int>(bytes.size()));
    if (serial->IsLost() != lineWasLost_) {
        lineWasLost_ = serial->IsLost();
        Diag(kUnit, __func__, __LINE__, lineWasLost_ ? "serial line lost." : "serial line is back.");
    } else if (written != static_cast<int>(bytes.size()) && !lineWasLost_) {
        DiagErrno(kUnit, __func__, __LINE__, "serial write %d: ", written);
    }
    return written;
}

int FpgaWriter::Send(const SettingLock &lock, std::uint32_t command, std::uint32_t value)
{
    return Send(lock, MakeFpgaFrame(command, value));
}

int FpgaWriter::SendTraced(const SettingLock &lock, const wire::FpgaFrame &frame, FrameTrace trace)
{
    const int written = Send(lock, frame);
    std::printf("%s%s\n", trace.label, FrameText(frame, trace.byteFormat).c_str());
    return written;
}
