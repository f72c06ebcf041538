// SPDX-License-Identifier: MIT
#include "common/pc/text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <optional>

namespace ledboard
{

namespace
{

struct CodePoint {
    std::optional<char32_t> value; // nullopt: no valid character starts with this byte
    std::size_t bytes = 1;
};

// RFC 3629: no overlong forms, no surrogates, nothing after U+10FFFF.
CodePoint DecodeFirst(std::string_view text)
{
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned lead = at(0);
    if (lead < 0x80)
        return {static_cast<char32_t>(lead), 1};
    const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < size)
        return {};
    char32_t value = lead & (0xFFU >> (size + 1));
    for (std::size_t i = 1; i < size; ++i) {
        if ((at(i) & 0xC0U) != 0x80U)
            return {};
        value = value << 6U | (at(i) & 0x3FU);
    }
    constexpr std::array<char32_t, 5> kMinValue = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    if (value < kMinValue.at(size) || value > 0x10FFFF || surrogate)
        return {};
    return {value, size};
}

struct Range {
    char32_t first;
    char32_t last;
};

template <std::size_t N> bool IsIn(const Range (&ranges)[N], char32_t value)
{
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [=](const Range &range) { return value >= range.first && value <= range.last; });
}

// Control characters, and those that break lines or change the writing direction.
constexpr Range kControls[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x61C, 0x61C},  {0x200E, 0x200F},
                               {0x2028, 0x202E}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF}};
constexpr Range kDoubleWidth[] = {{0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},  {0xAC00, 0xD7A3},
                                  {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF00, 0xFF60},  {0xFFE0, 0xFFE6},
                                  {0x1F300, 0x1F64F}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}};
constexpr Range kZeroWidth[] = {{0x300, 0x36F}, {0x200B, 0x200D}, {0xFE00, 0xFE0F}};

std::size_t WidthOf(char32_t value)
{
    if (IsIn(kZeroWidth, value))
        return 0;
    return IsIn(kDoubleWidth, value) ? 2 : 1;
}

// Calls `each` with every character and its bytes.
template <typename Each> void Walk(std::string_view text, Each each)
{
    while (!text.empty()) {
        const CodePoint point = DecodeFirst(text);
        each(point.value, text.substr(0, point.bytes));
        text.remove_prefix(point.bytes);
    }
}

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

} // namespace

std::string ToUtf8(std::string_view bytes)
{
    std::string text;
    Walk(bytes,
         [&](std::optional<char32_t> value, std::string_view raw) { text += value ? raw : kReplacement; });
    return text;
}

std::string ForTerminal(std::string_view bytes)
{
    std::string text;
    Walk(bytes, [&](std::optional<char32_t> value, std::string_view raw) {
        if (!value)
            text += kReplacement;
        else if (!IsIn(kControls, *value))
            text += raw;
        else if (*value < 0x100)
            text += fmt::format("\\x{:02x}", static_cast<std::uint32_t>(*value));
        else
            text += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(*value));
    });
    return text;
}

std::size_t DisplayWidth(std::string_view utf8)
{
    std::size_t width = 0;
    Walk(utf8, [&](std::optional<char32_t> value, std::string_view) { width += WidthOf(value.value_or(0)); });
    return width;
}

std::string Shortened(std::string_view utf8, std::size_t columns)
{
    if (DisplayWidth(utf8) <= columns)
        return std::string(utf8);
    std::string text;
    std::size_t width = 1; // of the ellipsis
    Walk(utf8, [&](std::optional<char32_t> value, std::string_view raw) {
        width += WidthOf(value.value_or(0));
        if (width <= columns)
            text += raw;
    });
    return text.append(kEllipsis);
}

std::string FormatKib(std::uint64_t kib)
{
    if (kib < 1024)
        return fmt::format("{} KiB", kib);
    if (kib < 1024 * 1024)
        return fmt::format("{} MiB", kib / 1024);
    return fmt::format("{:.1f} GiB", static_cast<double>(kib) / (1024.0 * 1024.0));
}

std::optional<std::uint32_t> ParseNumber(std::string_view text)
{
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal)
        text.remove_prefix(2);
    std::uint32_t number = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number, hexadecimal ? 16 : 10);
    if (end.ec != std::errc() || end.ptr != text.data() + text.size())
        return std::nullopt;
    return number;
}

std::optional<std::int64_t> ParseTime(const std::string &text)
{
    for (const char *const format :
         {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M"}) {
        std::tm time{};
        const char *const rest = strptime(text.c_str(), format, &time);
        if (rest == nullptr || (*rest != '\0' && std::string_view(rest) != "Z"))
            continue;
        time.tm_isdst = -1;
        std::tm known = time; // mktime turns a time that does not exist into another
        const std::time_t seconds = *rest == '\0' ? mktime(&known) : timegm(&known);
        const bool same = known.tm_mon == time.tm_mon && known.tm_mday == time.tm_mday &&
                          known.tm_hour == time.tm_hour && known.tm_min == time.tm_min &&
                          known.tm_sec == time.tm_sec;
        return same ? std::optional(std::int64_t{seconds} * 1000) : std::nullopt;
    }
    return std::nullopt;
}

std::string FormatUtc(std::chrono::milliseconds sinceEpoch)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(static_cast<std::time_t>(seconds.count())),
                       (sinceEpoch - seconds).count());
}

std::string FormatUtc(std::chrono::system_clock::time_point time)
{
    return FormatUtc(std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch()));
}

} // namespace ledboard
