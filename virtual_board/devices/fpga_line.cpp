// SPDX-License-Identifier: MIT
#include "devices/fpga_line.h"

#include "records/fpga_frame.h"

#include <fmt/core.h>

#include <unistd.h>

#include <algorithm>
#include <array>

namespace board
{

std::string FrameDecoder::Explain(std::uint8_t command, std::uint32_t value)
{
    const bool afterOpening = transferOpen_;
    transferOpen_ = command == 1 && value == 0 && !inBlock_;
    if (inBlock_ && command == 2 && value == 1) {
        inBlock_ = false;
        return "parameter block ends";
    }
    if (!inBlock_ && command == 1 && value == 0)
        return "settings transfer opens (or smart setting closes)";
    if (!inBlock_ && command == 2 && value <= 1) {
        inBlock_ = afterOpening && value == 0;
        if (inBlock_)
            return "parameter block begins";
        return value == 1 ? "screen on" : "screen off";
    }
    switch (command) {
    case 3:
        return fmt::format("screen size {} x {}", value & 0xFFFF, value >> 16);
    case 9:
        return fmt::format("luminance {}", value);
    case 28:
    case 29:
    case 30:
        return fmt::format("brightness {} of 255", value);
    case 254:
        return inBlock_ ? fmt::format("maximum luminance {}", value) : fmt::format("brightness {} %", value);
    default:
        return fmt::format("parameter {} = {}", command, value);
    }
}

void FrameDecoder::Feed(const char *bytes, std::size_t size)
{
    pending_.append(bytes, size);
    std::size_t at = 0;
    while (const auto frame =
               wire::Read<wire::FpgaFrame>(wire::BytesAt(pending_.data(), pending_.size()), at)) {
        if (frame->head != wire::kFpgaMark || frame->tail != wire::kFpgaMark) {
            ++strayBytes_;
            ++at;
            continue;
        }
        frames_.push_back({frame->command, frame->value, Explain(frame->command, frame->value),
                           std::chrono::steady_clock::now()});
        at += sizeof(wire::FpgaFrame);
    }
    pending_.erase(0, at);
}

void FrameDecoder::Forget()
{
    frames_.clear();
    strayBytes_ = 0;
}

FpgaLine::FpgaLine(Watcher &watcher, PowerMutex &power, BoardRoot &root, const std::string &folder,
                   bool connected)
    : watcher_(watcher), power_(power), root_(root), line_(folder)
{
    if (connected)
        Open();
}

FpgaLine::~FpgaLine()
{
    Close();
}

void FpgaLine::Open()
{
    if (line_.IsOpen())
        return;
    line_.Open();
    watcher_.Add(line_.Master(), [this] { Receive(); });
}

void FpgaLine::Close()
{
    if (!line_.IsOpen())
        return;
    watcher_.Remove(line_.Master());
    line_.Close();
}

void FpgaLine::Connect(bool on)
{
    const PowerLock power(power_);
    if (on)
        Open();
    else
        Close();
    PowerOn(power);
}

void FpgaLine::PowerOn(const PowerLock &)
{
    root_.ConnectLine("ttyO0", line_.IsOpen() ? line_.SlavePath() : "");
}

void FpgaLine::Receive()
{
    std::array<char, 4096> bytes;
    const ssize_t got = read(line_.Master(), bytes.data(), bytes.size());
    if (got <= 0)
        return;
    const std::lock_guard guard(watcher_.Lock());
    decoder_.Feed(bytes.data(), static_cast<std::size_t>(got));
}

std::vector<Frame> FpgaLine::Frames() const
{
    const std::lock_guard guard(watcher_.Lock());
    return decoder_.Frames();
}

std::size_t FpgaLine::StrayBytes() const
{
    const std::lock_guard guard(watcher_.Lock());
    return decoder_.StrayBytes();
}

bool FpgaLine::WaitForFrame(std::uint8_t command, std::uint32_t value, Milliseconds limit) const
{
    const auto wanted = [&](const Frame &frame) { return frame.command == command && frame.value == value; };
    return watcher_.WaitFor([&] { return std::ranges::any_of(Frames(), wanted); }, limit);
}

bool FpgaLine::WaitForFrames(std::size_t count, Milliseconds limit) const
{
    return watcher_.WaitFor([&] { return Frames().size() >= count; }, limit);
}

void FpgaLine::Forget()
{
    const std::lock_guard guard(watcher_.Lock());
    decoder_.Forget();
}

} // namespace board
