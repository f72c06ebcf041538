// SPDX-License-Identifier: MIT
#include "base/safe_name.h"

#include <algorithm>

namespace
{

bool IsControl(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7f;
}

// Whether one of the parts between the separators is `part`.
bool HasPart(std::string_view name, std::string_view separators, std::string_view part)
{
    for (;;) {
        const std::size_t end = name.find_first_of(separators);
        if (name.substr(0, end) == part)
            return true;
        if (end == std::string_view::npos)
            return false;
        name.remove_prefix(end + 1);
    }
}

} // namespace

bool IsSafeName(std::string_view name)
{
    // An empty part: the name is empty, begins or ends with a slash, or has two in a row.
    return !HasPart(name, "/", "") && !HasPart(name, "/\\", "..") &&
           std::none_of(name.begin(), name.end(), IsControl);
}

std::string PrintableName(std::string_view name)
{
    std::string text(name);
    std::replace_if(text.begin(), text.end(), IsControl, '?');
    return text;
}
