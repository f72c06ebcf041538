// SPDX-License-Identifier: MIT
// virtual_board/machine/inside_image.h: the programs of inside/, carried in the library so that nothing has
// to be found on disk.
#pragma once

#include <string_view>

namespace board
{

std::string_view InsideImage();          // init, recorder and stand-ins
std::string_view FramebufferShimImage(); // preloaded into the daemon

} // namespace board
