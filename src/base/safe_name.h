// SPDX-License-Identifier: MIT
// src/base/safe_name.h: the one place that decides whether a name that came over the network may be used. Any
// thread.
#pragma once

#include <string>
#include <string_view>

// True when `name`, put behind a folder and a slash, stays inside that folder: it is relative, no component
// is empty or "..", no byte is a control character. Bytes above 127 are taken as they are. A backslash counts
// as a separator as well, since some of our file commands cut there.
bool IsSafeName(std::string_view name);

// What a log line says about a name that was refused.
constexpr char kUnsafeNameText[] =
    "name not allowed (relative, no \"..\", no empty part, no control characters)";

// The name as a log line may show it: control characters as question marks.
std::string PrintableName(std::string_view name);
