// SPDX-License-Identifier: MIT
#include "modem/at_answers.h"

#include "modem/sms_text.h"
#include "records/modem_records.h"

#include <QDateTime>

#include <algorithm>

namespace
{

constexpr std::size_t kMaxLines = 16;
constexpr std::size_t kMaxListing = 65536; // bytes

std::optional<std::uint32_t> NumberOf(const std::vector<AtField> &fields, std::size_t index)
{
    return index < fields.size() ? AtNumber(fields[index].text) : std::nullopt;
}

// An answer to "AT+CREG?" begins with the mode that was set; an unsolicited line begins with the status. With
// a mode the second field is the status, a number up to 10. Without one it is the area code, which is quoted
// or has four hexadecimal digits.
bool HasMode(const std::vector<AtField> &fields)
{
    constexpr std::size_t kUnsolicitedWithArea = 3; // status, area, cell
    constexpr std::uint32_t kMaxStatus = 10;
    if (fields.size() < 2 || fields.size() == kUnsolicitedWithArea || fields[1].quoted)
        return false;
    return fields[1].text.size() <= 2 && AtNumber(fields[1].text).value_or(kMaxStatus + 1) <= kMaxStatus;
}

// The index of the time stamp, which is the only field with a slash; the number of fields without one. Its
// place is not fixed, since some modems leave out the name of the sender before it.
std::size_t TimeField(const std::vector<AtField> &fields)
{
    for (std::size_t index = 3; index < fields.size(); ++index) {
        if (fields[index].text.find('/') != std::string::npos)
            return index;
    }
    return fields.size();
}

// Some modems send the time stamp without quotes: its comma has then made two fields of it.
std::string StampAt(const std::vector<AtField> &fields, std::size_t index)
{
    if (index >= fields.size())
        return {};
    const std::string &text = fields[index].text;
    const bool cut = !fields[index].quoted && index + 1 < fields.size();
    return cut ? text + "," + fields[index + 1].text : text;
}

} // namespace

// How many of the line ends before the line belong to the text of the last message: the two that end the
// header do not.
std::size_t AtExchange::GapInBody(const AtLine &line) const
{
    constexpr std::size_t kHeaderEnd = 2;
    if (bodyBytes_ != 0)
        return line.bytesBefore;
    return line.bytesBefore - std::min(line.bytesBefore, kHeaderEnd);
}

// Whether the line is text of the last message, even if it looks like a result code.
bool AtExchange::BelongsToBody(const AtLine &line) const
{
    constexpr std::size_t kBlankLine = 2; // line breaks in a row
    if (answer_.messages.empty())
        return false;
    const AtMessage &message = answer_.messages.back();
    if (message.length)
        return bodyBytes_ + GapInBody(line) < *message.length;
    // Without a length only the blank line before the final result distinguishes it from a text that says
    // "OK".
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
        message.body.append(std::min(line.breaksBefore, kMaxAtLine), '\n');
    message.body += line.text;
    held_ += line.text.size();
    message.whole = held_ <= kMaxListing;
}

void AtExchange::AddMessage(std::string header)
{
    // The rest is not lost when the listing is full: a later listing has it, once these messages are deleted.
    if (!answer_.messages.empty() && !answer_.messages.back().whole)
        return;
    held_ += header.size();
    bodyBytes_ = 0;
    const auto length = BodyLength(header);
    answer_.messages.push_back({std::move(header), length, {}, held_ <= kMaxListing});
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
    answer_.meaning = failure->meaning;
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
        // The echo: it comes until "ATE0" has been carried out.
    } else if (prefixed && command_.kind == AtKind::kListing) {
        AddMessage(line.text.substr(prefix.size()));
    } else if (prefixed && answer_.lines.size() < kMaxLines) {
        answer_.lines.push_back(line.text.substr(prefix.size()));
    } else if (LooksUnsolicited(line.text)) {
        if (unsolicited_.size() < kMaxLines)
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

std::optional<AtRegistration> ParseRegistration(std::string_view line)
{
    std::vector<AtField> fields = AtFields(line);
    if (HasMode(fields))
        fields.erase(fields.begin());
    const auto status = NumberOf(fields, 0); // then area, cell, technology
    if (!status)
        return std::nullopt;
    return AtRegistration{*status, NumberOf(fields, 3)};
}

std::optional<std::int32_t> ParseSignal(std::string_view line)
{
    constexpr std::uint32_t kStrongest = 31;
    const auto steps = NumberOf(AtFields(line), 0);
    if (!steps || *steps > kStrongest)
        return std::nullopt;
    return -113 + 2 * static_cast<std::int32_t>(*steps);
}

AtOperator ParseOperator(std::string_view line)
{
    const std::vector<AtField> fields = AtFields(line); // mode, format, operator, technology
    if (fields.size() < 3)
        return {};
    return {FromModemText(fields[2].text), NumberOf(fields, 3)};
}

std::optional<AtMessageHeader> ParseMessageHeader(std::string_view header)
{
    constexpr std::uint32_t kMaxIndex = 0xFFFF;
    const std::vector<AtField> fields = AtFields(header);
    const auto index = NumberOf(fields, 0);
    if (!index || *index > kMaxIndex || fields.size() < 3)
        return std::nullopt;
    AtMessageHeader result;
    result.index = static_cast<int>(*index);
    result.received = fields[1].text.starts_with("REC");
    result.sender = FromModemText(fields[2].text);
    result.time = ParseTimeStamp(StampAt(fields, TimeField(fields)));
    return result;
}

std::optional<std::size_t> BodyLength(std::string_view header)
{
    const std::vector<AtField> fields = AtFields(header);
    const std::size_t stamp = TimeField(fields);
    if (stamp >= fields.size())
        return std::nullopt;
    const std::size_t length = stamp + (fields[stamp].quoted ? 2 : 3); // the type of the address comes first
    const auto value = NumberOf(fields, length);
    return value ? std::optional<std::size_t>(*value) : std::nullopt;
}

std::int64_t ParseTimeStamp(std::string_view text)
{
    constexpr std::size_t kZoneAt = 17; // after "yy/MM/dd,hh:mm:ss"
    // 99 is no month, day, hour, minute or second.
    const auto two = [&](std::size_t at) {
        return at + 2 <= text.size() ? static_cast<int>(AtNumber(text.substr(at, 2)).value_or(99)) : 99;
    };
    const QDate date(2000 + two(0), two(3), two(6));
    const QTime time(two(9), two(12), two(15));
    if (!date.isValid() || !time.isValid())
        return 0;
    std::int64_t seconds = QDateTime(date, time, Qt::UTC).toSecsSinceEpoch();
    if (text.size() > kZoneAt + 2) {
        const std::int64_t zone = std::int64_t{two(kZoneAt + 1)} * 15 * 60;
        seconds -= text[kZoneAt] == '-' ? -zone : zone;
    }
    return seconds;
}

std::string ParseImei(std::string_view line)
{
    constexpr std::size_t kMinDigits = 14;
    constexpr std::size_t kMaxDigits = 17;
    line = AtTrimmed(line);
    if (line.starts_with('"'))
        line.remove_prefix(1);
    std::string digits;
    for (const char c : line.substr(0, kMaxDigits)) {
        if (c < '0' || c > '9')
            break;
        digits += c;
    }
    return digits.size() >= kMinDigits ? digits : std::string();
}
