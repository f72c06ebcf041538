// SPDX-License-Identifier: MIT
// virtual_board/devices/framebuffer.h: the board's screens: what the daemon and the player find at "/dev/fb0"
// to "/dev/fb2".
#pragma once

#include "machine/board_root.h"

#include <optional>
#include <string>
#include <vector>

namespace board
{

struct ScreenPicture {
    unsigned width, height;                      // visible pixels
    unsigned bitsPerPixel;                       // as the daemon has left it
    unsigned lineLength;                         // bytes from one row to the next
    std::string bytes;                           // of the framebuffer, lineLength * height
    unsigned redOffset, greenOffset, blueOffset; // bits

    // 0xRRGGBB, each colour scaled to 8 bits; 8-bit screens are grey.
    std::uint32_t Pixel(unsigned x, unsigned y) const;
    std::string Png() const; // as a PNG file
};

constexpr char kShimPath[] = "/usr/lib/virtual-board/framebuffer.so";

// After every MountVolatile, when the board has screens. Throws std::runtime_error for more than three.
void MakeFramebuffers(BoardRoot &root, const std::vector<ScreenMode> &modes);
std::optional<ScreenPicture> ReadFramebuffer(const BoardRoot &root, unsigned device = 0); // nullopt: no such
                                                                                          // screen

} // namespace board
