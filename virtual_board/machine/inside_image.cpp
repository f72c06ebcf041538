// SPDX-License-Identifier: MIT
#include "machine/inside_image.h"

asm(".section .rodata\n"
    "board_inside_image_begin:\n"
    ".incbin \"" INSIDE_IMAGE "\"\n"
    "board_inside_image_end:\n"
    "board_shim_image_begin:\n"
    ".incbin \"" SHIM_IMAGE "\"\n"
    "board_shim_image_end:\n"
    ".previous\n");

extern "C" const char board_inside_image_begin[];
extern "C" const char board_inside_image_end[];
extern "C" const char board_shim_image_begin[];
extern "C" const char board_shim_image_end[];

namespace board
{

std::string_view InsideImage()
{
    return {board_inside_image_begin,
            static_cast<std::size_t>(board_inside_image_end - board_inside_image_begin)};
}

std::string_view FramebufferShimImage()
{
    return {board_shim_image_begin, static_cast<std::size_t>(board_shim_image_end - board_shim_image_begin)};
}

} // namespace board
