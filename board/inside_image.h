// SPDX-License-Identifier: MIT
// inside_image.h — the program of inside/, carried in the library so that nothing has to be found on disk.
#pragma once

#include <string_view>

namespace board
{

std::string_view InsideImage();

} // namespace board
