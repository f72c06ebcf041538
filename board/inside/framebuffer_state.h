// SPDX-License-Identifier: MIT
// framebuffer_state.h — the mode of the board's "/dev/fb0", kept in a file beside it: the library lays it
// down, the shim in the daemon answers from it.
#pragma once

#include <cstdint>
#include <linux/fb.h>

namespace inside
{

constexpr char kFramebufferPath[] = "/dev/fb0";
constexpr char kFramebufferStatePath[] = "/dev/.fb0-mode";

struct FramebufferState {
    fb_var_screeninfo variable;
    fb_fix_screeninfo fixed;
    std::uint32_t refuses32; // 1: a switch to 32 bits fails
    std::uint32_t refuses16;
};

} // namespace inside
