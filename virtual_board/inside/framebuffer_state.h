// SPDX-License-Identifier: MIT
// virtual_board/inside/framebuffer_state.h: the mode of each of the board's "/dev/fb0" to "/dev/fb2", kept in
// a file beside it: the library lays it down, the shim in the daemon answers from it.
#pragma once

#include <linux/fb.h>

#include <cstdint>

namespace inside
{

struct FramebufferPaths {
    const char *device;
    const char *state;
};

constexpr FramebufferPaths kFramebuffers[] = {
    {"/dev/fb0", "/dev/.fb0-mode"},
    {"/dev/fb1", "/dev/.fb1-mode"},
    {"/dev/fb2", "/dev/.fb2-mode"},
};

struct FramebufferState {
    fb_var_screeninfo variable;
    fb_fix_screeninfo fixed; // as it is now
    std::uint32_t padding;   // bytes behind the pixels of a row
    std::uint32_t refuses32; // 1: a switch to 32 bits fails
    std::uint32_t refuses16;
};

} // namespace inside
