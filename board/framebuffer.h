// SPDX-License-Identifier: MIT
// framebuffer.h — the board's screen: what the daemon and the player find at "/dev/fb0".
#pragma once

#include "board_root.h"

#include <optional>
#include <string>

namespace board
{

struct ScreenPicture {
    unsigned width, height;                      // visible pixels
    unsigned bitsPerPixel;                       // as the daemon has left it
    unsigned lineLength;                         // bytes from one row to the next
    std::string bytes;                           // of the framebuffer, lineLength * height
    unsigned redOffset, greenOffset, blueOffset; // bits

    // 0xRRGGBB, each colour scaled to 8 bits.
    std::uint32_t Pixel(unsigned x, unsigned y) const;
    std::string Ppm() const; // as a portable pixmap file
};

constexpr char kShimPath[] = "/usr/lib/virtual-board/framebuffer.so";

// After every MountVolatile, when the board has a screen.
void LayFramebuffer(BoardRoot &root, const ScreenMode &mode);
std::optional<ScreenPicture> ReadFramebuffer(const BoardRoot &root);

} // namespace board
