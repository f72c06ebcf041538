// SPDX-License-Identifier: MIT
// common/pc/text.h: makes texts from the network safe for JSON and for terminals; formats sizes and times;
// reads the numbers and times that users write.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ledboard
{

// Valid UTF-8: every invalid byte becomes U+FFFD. Control characters stay.
std::string ToUtf8(std::string_view bytes);

// As ToUtf8; what could control a terminal (control characters, changes of the writing direction) is written
// as \x1b or \u202e.
std::string ForTerminal(std::string_view bytes);

// Columns that valid UTF-8 takes on a terminal: two for East Asian characters, zero for combining ones.
std::size_t DisplayWidth(std::string_view utf8);

// At most `columns` wide; a truncated text ends in an ellipsis.
std::string Shortened(std::string_view utf8, std::size_t columns);

// "512 KiB", "698 MiB", "29.1 GiB"
std::string FormatKib(std::uint64_t kib);

// Decimal, or hexadecimal after "0x"; nullopt for anything else.
std::optional<std::uint32_t> ParseNumber(std::string_view text);

// "2026-05-17T08:30:00" as milliseconds since the epoch: local time of this PC, or UTC with a Z at the end. A
// blank may replace the T, and seconds may be left out. nullopt for anything else, such as 31 June.
std::optional<std::int64_t> ParseTime(const std::string &text);

// UTC, ISO 8601 with milliseconds: "2024-05-17T08:03:09.250Z"
std::string FormatUtc(std::chrono::system_clock::time_point time);
std::string FormatUtc(std::chrono::milliseconds sinceEpoch);

} // namespace ledboard
