// SPDX-License-Identifier: MIT
// common/pc/text.h: texts that came over the network, made fit for JSON and for a terminal, and the forms in
// which the tool shows sizes and times.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ledboard
{

// Valid UTF-8: each byte that is none becomes U+FFFD. Control characters stay.
std::string ToUtf8(std::string_view bytes);

// As ToUtf8, and with everything that could steer a terminal (control characters, changes of the writing
// direction) written as \x1b or \u202e.
std::string ForTerminal(std::string_view bytes);

// Columns that valid UTF-8 takes on a terminal: two for East Asian characters, none for combining ones.
std::size_t DisplayWidth(std::string_view utf8);

// At most `columns` wide; a text that is cut ends in an ellipsis.
std::string Shortened(std::string_view utf8, std::size_t columns);

// "512 KiB", "698 MiB", "29.1 GiB"
std::string FormatKib(std::uint64_t kib);

// Decimal, or hexadecimal behind "0x"; nothing for anything else.
std::optional<std::uint32_t> ParseNumber(std::string_view text);

// "2026-05-17T08:30:00" as milliseconds since the epoch: local time of this PC, UTC with a Z at its end. A
// blank may stand for the T, and seconds may be left out. Nothing for anything else, such as the 31st of
// June.
std::optional<std::int64_t> ParseTime(const std::string &text);

// UTC, ISO 8601 with milliseconds: "2024-05-17T08:03:09.250Z"
std::string FormatUtc(std::chrono::system_clock::time_point time);
std::string FormatUtc(std::chrono::milliseconds sinceEpoch);

} // namespace ledboard
