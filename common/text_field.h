// SPDX-License-Identifier: MIT
// common/text_field.h: texts in fields of a fixed size, which end at the first zero byte or fill the field.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace ledboard
{

// What stands before the first zero byte. The view is good for as long as the field.
inline std::string_view FieldText(const char *field, std::size_t size)
{
    return {field, strnlen(field, size)};
}

template <std::size_t Size> std::string_view FieldText(const char (&field)[Size])
{
    return FieldText(field, Size);
}

// Stores `text`, cut at the size of the field, and fills the rest with zeros. A text that fills the field is
// not terminated.
template <std::size_t Size> void SetFieldText(char (&field)[Size], std::string_view text)
{
    const std::size_t length = std::min(text.size(), Size);
    std::memcpy(field, text.data(), length);
    std::memset(field + length, 0, Size - length);
}

} // namespace ledboard
