// SPDX-License-Identifier: MIT
#include "modem/at_lines.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace
{

constexpr std::size_t kMaxWaitingLines = 4096;

} // namespace

void AtLines::Feed(std::string_view bytes)
{
    for (const char byte : bytes) {
        const bool isReturn = byte == '\r';
        if (!isReturn && byte != '\n') {
            if (current_.bytes == 0) {
                current_.bytesBefore = std::exchange(gapBytes_, 0);
                current_.breaksBefore = std::exchange(gapBreaks_, 0);
            }
            ++current_.bytes;
            if (current_.text.size() < kMaxAtLine)
                current_.text += byte;
            lastWasReturn_ = false;
            continue;
        }
        if (current_.bytes != 0 && ready_.size() < kMaxWaitingLines)
            ready_.push_back(std::move(current_));
        current_ = {};
        ++gapBytes_;
        if (isReturn || !lastWasReturn_)
            ++gapBreaks_;
        lastWasReturn_ = isReturn;
    }
}

std::optional<AtLine> AtLines::Next()
{
    if (ready_.empty())
        return std::nullopt;
    AtLine line = std::move(ready_.front());
    ready_.pop_front();
    return line;
}

void AtLines::Clear()
{
    *this = {};
}

std::vector<AtField> AtFields(std::string_view line)
{
    std::vector<AtField> fields;
    for (bool more = true; more;) {
        line = AtTrimmed(line);
        AtField field;
        if (line.starts_with('"')) {
            const std::size_t end = std::min(line.find('"', 1), line.size());
            field = {std::string(line.substr(1, end - 1)), true};
            line.remove_prefix(std::min(end + 1, line.size()));
        }
        const std::size_t comma = line.find(',');
        more = comma != std::string_view::npos;
        if (!field.quoted)
            field.text = AtTrimmed(line.substr(0, comma));
        line.remove_prefix(more ? comma + 1 : line.size());
        fields.push_back(std::move(field));
    }
    return fields;
}

std::string_view AtTrimmed(std::string_view text)
{
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

std::optional<std::uint32_t> AtNumber(std::string_view text)
{
    std::uint32_t value = 0;
    const auto end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end)
        return std::nullopt;
    return value;
}
