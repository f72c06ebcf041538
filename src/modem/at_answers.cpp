// SPDX-License-Identifier: MIT
#include "modem/at_answers.h"

#include "modem/sms_text.h"
#include "records/modem_records.h"

#include <QDateTime>

#include <algorithm>
#include <charconv>

namespace
{

struct FailureText {
    int code;
    const char *words;
};

constexpr FailureText kFailures[] = {
    // 27.007, 9.2
    {0, "phone failure"},
    {1, "no connection to phone"},
    {3, "operation not allowed"},
    {4, "operation not supported"},
    {5, "PH-SIM PIN required"},
    {10, "SIM not inserted"},
    {11, "SIM PIN required"},
    {12, "SIM PUK required"},
    {13, "SIM failure"},
    {14, "SIM busy"},
    {15, "SIM wrong"},
    {16, "incorrect password"},
    {17, "SIM PIN2 required"},
    {18, "SIM PUK2 required"},
    {20, "memory full"},
    {21, "invalid index"},
    {22, "not found"},
    {23, "memory failure"},
    {30, "no network service"},
    {31, "network timeout"},
    {32, "network not allowed - emergency calls only"},
    {40, "network personalization PIN required"},
    {100, "unknown"},
    // 27.005, 3.2.5
    {300, "ME failure"},
    {301, "SMS service of ME reserved"},
    {302, "operation not allowed"},
    {303, "operation not supported"},
    {305, "invalid text mode parameter"},
    {310, "SIM not inserted"},
    {311, "SIM PIN required"},
    {312, "PH-SIM PIN required"},
    {313, "SIM failure"},
    {314, "SIM busy"},
    {315, "SIM wrong"},
    {316, "SIM PUK required"},
    {320, "memory failure"},
    {321, "invalid memory index"},
    {322, "memory full"},
    {331, "no network service"},
    {332, "network timeout"},
    {500, "unknown error"},
};

std::string_view Trimmed(std::string_view text)
{
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

std::optional<std::uint32_t> Number(std::string_view text)
{
    std::uint32_t value = 0;
    const auto end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stopped != end)
        return std::nullopt;
    return value;
}

std::optional<std::uint32_t> NumberOf(const std::vector<AtField> &fields, std::size_t index)
{
    return index < fields.size() ? Number(fields[index].text) : std::nullopt;
}

bool SameWords(std::string_view one, std::string_view other)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::ranges::equal(one, other, {}, lower, lower);
}

AtFailure FailureOf(std::string_view text, bool message)
{
    if (const auto code = Number(text)) {
        const auto known = std::ranges::find(kFailures, static_cast<int>(*code), &FailureText::code);
        const bool found = known != std::end(kFailures);
        return {static_cast<int>(*code & 0xFFFF), found ? known->words : "error " + std::string(text)};
    }
    // The same words stand in both tables: those of messages begin at 300.
    const auto fits = [&](const FailureText &one) {
        return (one.code >= 300) == message && SameWords(one.words, text);
    };
    const auto known = std::ranges::find_if(kFailures, fits);
    return {known != std::end(kFailures) ? known->code : -1, ValidUtf8(text)};
}

// Whether the second field is the status and the first the mode: then it was asked for. An area code is
// quoted, or hexadecimal of up to four digits.
bool HasMode(const std::vector<AtField> &fields)
{
    constexpr std::size_t kUnsolicitedWithArea = 3; // status, area, cell
    if (fields.size() < 2 || fields.size() == kUnsolicitedWithArea || fields[1].quoted)
        return false;
    return fields[1].text.size() <= 2 && Number(fields[1].text).value_or(99) <= 10;
}

// Whether the time stamp's halves, cut at their comma, are one quoted field; some modems forget the quotes.
std::size_t TimeField(const std::vector<AtField> &fields)
{
    for (std::size_t index = 3; index < fields.size(); ++index) {
        if (fields[index].text.find('/') != std::string::npos)
            return index;
    }
    return fields.size();
}

std::string StampAt(const std::vector<AtField> &fields, std::size_t index)
{
    if (index >= fields.size())
        return {};
    const std::string &text = fields[index].text;
    const bool cut = !fields[index].quoted && index + 1 < fields.size();
    return cut ? text + "," + fields[index + 1].text : text;
}

} // namespace

std::vector<AtField> AtFields(std::string_view line)
{
    std::vector<AtField> fields;
    for (bool more = true; more;) {
        line = Trimmed(line);
        AtField field;
        if (line.starts_with('"')) {
            const std::size_t end = std::min(line.find('"', 1), line.size());
            field = {std::string(line.substr(1, end - 1)), true};
            line.remove_prefix(std::min(end + 1, line.size()));
        }
        const std::size_t comma = line.find(',');
        more = comma != std::string_view::npos;
        if (!field.quoted)
            field.text = Trimmed(line.substr(0, comma));
        line.remove_prefix(more ? comma + 1 : line.size());
        fields.push_back(std::move(field));
    }
    return fields;
}

std::optional<AtFailure> ParseFailure(std::string_view line)
{
    constexpr std::string_view kEquipment = "+CME ERROR:";
    constexpr std::string_view kMessage = "+CMS ERROR:";
    if (line.starts_with(kEquipment))
        return FailureOf(Trimmed(line.substr(kEquipment.size())), false);
    if (line.starts_with(kMessage))
        return FailureOf(Trimmed(line.substr(kMessage.size())), true);
    if (line == "ERROR" || line == "COMMAND NOT SUPPORT" || line == "TOO MANY PARAMETERS")
        return AtFailure{-1, "refused"};
    return std::nullopt;
}

std::optional<AtRegistration> ParseRegistration(std::string_view line)
{
    std::vector<AtField> fields = AtFields(line);
    if (HasMode(fields))
        fields.erase(fields.begin());
    const auto status = NumberOf(fields, 0);
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
    const std::vector<AtField> fields = AtFields(line);
    if (fields.size() < 3)
        return {};
    return {FromModemText(fields[2].text), NumberOf(fields, 3)};
}

std::optional<AtMessageHeader> ParseMessageHeader(std::string_view header)
{
    const std::vector<AtField> fields = AtFields(header);
    const auto index = NumberOf(fields, 0);
    if (!index || *index > 0xFFFF || fields.size() < 3)
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
    const std::size_t length = stamp + (fields[stamp].quoted ? 2 : 3); // the type of address stands between
    const auto value = NumberOf(fields, length);
    return value ? std::optional<std::size_t>(*value) : std::nullopt;
}

std::int64_t ParseTimeStamp(std::string_view text)
{
    constexpr std::size_t kZoneAt = 17; // behind "yy/MM/dd,hh:mm:ss"
    const auto two = [&](std::size_t at) {
        return at + 2 <= text.size() ? static_cast<int>(Number(text.substr(at, 2)).value_or(99)) : 99;
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
    constexpr std::size_t kShortest = 14;
    constexpr std::size_t kLongest = 17;
    line = Trimmed(line);
    if (line.starts_with('"'))
        line.remove_prefix(1);
    std::string digits;
    for (const char c : line.substr(0, kLongest)) {
        if (c < '0' || c > '9')
            break;
        digits += c;
    }
    return digits.size() >= kShortest ? digits : std::string();
}
