// SPDX-License-Identifier: MIT
#include "settings/slant_pattern.h"

#include "base/diag.h"
#include "base/paths.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr int kAngle = 270;
constexpr int kPeriod = 8; // pixels from one line to the next, and rows after which the pattern repeats
constexpr int kPatternRows = 17;
constexpr std::size_t kPixelBytes = 4; // that one pixel of the pattern sets, at every depth

std::size_t PixelStep(const PanelFB &fb)
{
    return static_cast<std::size_t>(fb.bpp / 8);
}

std::size_t RowStep(const PanelFB &fb)
{
    return static_cast<std::size_t>(fb.stride) * 2;
}

// 24 times a frame, or all rows of the pattern where the device pads its rows to more than that.
std::uint64_t BufferSize(const PanelFB &fb)
{
    constexpr std::uint64_t kFrames = 24;
    const auto width = static_cast<std::uint64_t>(fb.real_width);
    const auto height = static_cast<std::uint64_t>(fb.real_height);
    const std::uint64_t frame = static_cast<std::uint64_t>(fb.bpp) * width * height / 8;
    const std::uint64_t longestRow = (width + 2 * kPeriod) * PixelStep(fb) + kPixelBytes;
    return std::max(kFrames * frame, std::uint64_t{kPatternRows} * RowStep(fb) + longestRow);
}

void Darken(const PanelFB &fb)
{
    std::memset(fb.base, 0, fb.usable);
}

void DarkenOther(const char *device)
{
    if (access(device, F_OK) == -1) // most boards have one panel
        return;
    if (const PanelFBPointer fb{panel_fb_new(kAngle, device)})
        Darken(*fb);
}

} // namespace

bool SlantPattern::Init()
{
    buffer_.reset();
    target_.reset();
    phase_ = 0;
    DarkenOther(paths::kSecondPanel);
    DarkenOther(paths::kThirdPanel);
    target_.reset(panel_fb_new(kAngle, paths::kPanel));
    if (!target_)
        return false;
    Darken(*target_);
    const PanelFBPointer upright(AllocateBuffer() ? panel_fb_new(0, paths::kPanel) : nullptr);
    if (!upright) {
        buffer_.reset();
        target_.reset();
        return false;
    }
    DrawLines(*upright);
    return true;
}

bool SlantPattern::AllocateBuffer()
{
    constexpr std::uint64_t kMaxSize = 1U << 30; // no panel of a board needs more
    const std::uint64_t size = BufferSize(*target_);
    size_ = size <= kMaxSize ? static_cast<std::size_t>(size) : 0;
    // calloc takes large blocks from the kernel, which gives memory only to the few rows that are touched.
    buffer_.reset(size_ != 0 ? static_cast<char *>(std::calloc(size_, 1)) : nullptr);
    if (!buffer_)
        Diag(kUnit, __func__, __LINE__, "no memory for slant lines on %d x %d pixels.", target_->real_width,
             target_->real_height);
    return buffer_ != nullptr;
}

void SlantPattern::DrawLines(const PanelFB &geometry)
{
    // QUIRK limit-in-bytes: the length of a row in bytes limits the pixels, so that on panels narrower than
    // 16 pixels a row's last ones land in the rows below; the length in pixels would be expected.
    const int limit = static_cast<int>(std::int64_t{2} * geometry.bpp * geometry.width / 8);
    for (int row = 0; row < std::min(kPatternRows, geometry.height); ++row) {
        const int start = row == 0 ? 0 : (row - 1) % kPeriod + 1;
        for (int offset = 0; offset < geometry.width + kPeriod; offset += kPeriod) {
            if (start + offset < limit)
                DrawPixel(start + offset, row);
        }
    }
}

void SlantPattern::DrawPixel(int x, int y)
{
    // QUIRK four-byte-pixels: a white pixel is four bytes at every depth, and so reaches into the next one at
    // 16 and 24 bits; as many bytes as a pixel has would be expected.
    const std::size_t place =
        static_cast<std::size_t>(x) * PixelStep(*target_) + static_cast<std::size_t>(y) * RowStep(*target_);
    if (place + kPixelBytes <= size_)
        std::memset(buffer_.get() + place, 0xFF, kPixelBytes);
}

void SlantPattern::Paint()
{
    if (!target_ || !on_)
        return;
    // Turned by 270 degrees, the width counts the rows of the device.
    for (int row = 0; row < target_->width; ++row)
        CopyRow(row);
    // QUIRK phase-0-once: phase 1 follows phase 8, so that phase 0 comes only once; a cycle of eight phases
    // would be expected.
    phase_ = phase_ == kPeriod ? 1 : phase_ + 1;
}

void SlantPattern::CopyRow(int row)
{
    const auto stride = static_cast<std::size_t>(target_->stride);
    const std::size_t to = static_cast<std::size_t>(row) * stride;
    const std::size_t from = static_cast<std::size_t>(row % kPeriod) * RowStep(*target_) +
                             static_cast<std::size_t>(phase_) * PixelStep(*target_);
    if (to < target_->usable && from < size_)
        std::memcpy(target_->base + to, buffer_.get() + from,
                    std::min({stride, target_->usable - to, size_ - from}));
}

void SlantPattern::Finish()
{
    if (target_)
        Darken(*target_);
    target_.reset();
    buffer_.reset();
}

void PaintSlantSetBuffer(PanelFB *fb, char *buf, int x, int y, unsigned char red, unsigned char green,
                         unsigned char blue)
{
    if (x < 0 || x >= fb->width || y < 0 || y >= fb->height)
        return;
    const unsigned char pixel[kPixelBytes] = {blue, green, red, 255};
    const std::size_t place =
        static_cast<std::size_t>(x) * PixelStep(*fb) + static_cast<std::size_t>(y) * RowStep(*fb);
    if (place + sizeof pixel <= BufferSize(*fb))
        std::memcpy(buf + place, pixel, sizeof pixel);
}
