// SPDX-License-Identifier: MIT
// src/base/safe_name.h: decides, for the whole daemon, whether a name from the network may be used as the
// name of a file. Any thread.
#pragma once

#include <string>
#include <string_view>

// True if `name`, appended to a folder and a slash, stays inside that folder: it is relative, no component is
// empty or "..", no byte is a control character. Bytes above 127 are allowed. For ".." a backslash counts as
// a separator too, since some commands of the protocols split names there.
bool IsSafeName(std::string_view name);

// For the log line about a name that was refused.
constexpr char kUnsafeNameText[] =
    "name not allowed (relative, no \"..\", no empty part, no control characters)";

// The name with question marks in place of control characters, which would forge lines of the log.
std::string PrintableName(std::string_view name);
