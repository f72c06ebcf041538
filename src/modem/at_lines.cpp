// SPDX-License-Identifier: MIT
#include "modem/at_lines.h"

#include "modem/at_answers.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr std::size_t kMostWaitingLines = 4096;
constexpr std::size_t kMostLines = 16; // of an answer that is no listing
constexpr std::size_t kLargestListing = 65536;
constexpr std::size_t kBlankLine = 2; // as many line ends in a row

bool IsUpper(char character)
{
    return character >= 'A' && character <= 'Z';
}

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
            if (current_.text.size() < kLongestAtLine)
                current_.text += byte;
            lastWasReturn_ = false;
            continue;
        }
        if (current_.bytes != 0 && ready_.size() < kMostWaitingLines)
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

bool IsLocked(const AtAnswer &answer)
{
    constexpr int kCodes[] = {5, 11, 12, 17, 18, 40, 311, 312, 316};
    return std::ranges::find(kCodes, answer.failureCode) != std::end(kCodes);
}

bool LooksUnsolicited(std::string_view text)
{
    if (text == "RING" || text == "NO CARRIER")
        return true;
    if (text.size() < 4 || std::string_view("+^*%#").find(text[0]) == std::string_view::npos)
        return false;
    const auto behindName = std::find_if_not(text.begin() + 1, text.end(), IsUpper);
    return behindName - text.begin() >= 3 && behindName != text.end() && *behindName == ':';
}

// Line ends before the line that are text of the last message: the one behind the header is not.
std::size_t AtExchange::GapInBody(const AtLine &line) const
{
    constexpr std::size_t kHeaderEnd = 2;
    if (bodyBytes_ != 0)
        return line.bytesBefore;
    return line.bytesBefore - std::min(line.bytesBefore, kHeaderEnd);
}

// Whether the line is text of the last message, whatever it looks like.
bool AtExchange::BelongsToBody(const AtLine &line) const
{
    if (answer_.messages.empty())
        return false;
    const AtMessage &message = answer_.messages.back();
    if (message.length)
        return bodyBytes_ + GapInBody(line) < *message.length;
    // Without a length, only the blank line before it tells the final result from a text that says "OK".
    return line.text == "OK" && line.breaksBefore < kBlankLine;
}

void AtExchange::AddToBody(const AtLine &line)
{
    AtMessage &message = answer_.messages.back();
    const bool first = bodyBytes_ == 0;
    bodyBytes_ += GapInBody(line) + line.bytes;
    if (!message.whole)
        return;
    if (!first)
        message.body.append(std::min(line.breaksBefore, kLongestAtLine), '\n');
    message.body += line.text;
    held_ += line.text.size();
    message.whole = held_ <= kLargestListing;
}

// A listing that is full drops what follows: it is listed again when these messages are deleted.
void AtExchange::AddMessage(std::string header)
{
    if (!answer_.messages.empty() && !answer_.messages.back().whole)
        return;
    held_ += header.size();
    bodyBytes_ = 0;
    const auto length = BodyLength(header);
    answer_.messages.push_back({std::move(header), length, {}, held_ <= kLargestListing});
}

bool AtExchange::TakeFinal(const std::string &text)
{
    if (text == "OK") {
        answer_.ok = true;
        return true;
    }
    const std::optional<AtFailure> failure = ParseFailure(text);
    if (!failure)
        return false;
    answer_.failure = std::string(command_.text) + ": " + failure->words;
    answer_.failureCode = failure->code;
    return true;
}

bool AtExchange::Take(const AtLine &line)
{
    if (BelongsToBody(line)) {
        AddToBody(line);
        return false;
    }
    if (TakeFinal(line.text))
        return true;
    const std::string_view prefix = command_.prefix;
    const bool prefixed = !prefix.empty() && line.text.starts_with(prefix);
    if (line.text == command_.text) {
        // the echo
    } else if (prefixed && command_.kind == AtKind::kListing) {
        AddMessage(line.text.substr(prefix.size()));
    } else if (prefixed && answer_.lines.size() < kMostLines) {
        answer_.lines.push_back(line.text.substr(prefix.size()));
    } else if (LooksUnsolicited(line.text)) {
        if (unsolicited_.size() < kMostLines)
            unsolicited_.push_back(line.text);
    } else if (command_.kind == AtKind::kListing && !answer_.messages.empty()) {
        AddToBody(line);
    } else if (command_.kind == AtKind::kBare && answer_.lines.empty()) {
        answer_.lines.push_back(line.text);
    }
    return false;
}

bool AtExchange::TakeTimeout()
{
    constexpr std::string_view kEnd = "\n\nOK";
    if (answer_.messages.empty())
        return false;
    std::string &body = answer_.messages.back().body;
    if (body != "OK" && !body.ends_with(kEnd))
        return false;
    body.resize(body.size() - std::min(body.size(), kEnd.size()));
    answer_.ok = true;
    return true;
}
