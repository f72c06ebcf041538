// SPDX-License-Identifier: MIT
#include "modem/at_codes.h"

#include "modem/at_lines.h"
#include "modem/sms_text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace
{

using enum AtMeaning;

enum class Family {
    kEquipment, // "+CME ERROR:", 3GPP TS 27.007, 9.2
    kMessage,   // "+CMS ERROR:", 3GPP TS 27.005, 3.2.5
};
using enum Family;

struct Code {
    std::uint32_t number;
    Family family;
    const char *words;
    AtMeaning meaning;
};

constexpr Code kCodes[] = {
    {0, kEquipment, "phone failure", kOther},
    {1, kEquipment, "no connection to phone", kOther},
    {3, kEquipment, "operation not allowed", kOther},
    {4, kEquipment, "operation not supported", kOther},
    {5, kEquipment, "PH-SIM PIN required", kSimLocked},
    {10, kEquipment, "SIM not inserted", kOther},
    {11, kEquipment, "SIM PIN required", kSimLocked},
    {12, kEquipment, "SIM PUK required", kSimLocked},
    {13, kEquipment, "SIM failure", kOther},
    {14, kEquipment, "SIM busy", kSimBusy},
    {15, kEquipment, "SIM wrong", kOther},
    {16, kEquipment, "incorrect password", kOther},
    {17, kEquipment, "SIM PIN2 required", kSimLocked},
    {18, kEquipment, "SIM PUK2 required", kSimLocked},
    {20, kEquipment, "memory full", kOther},
    {21, kEquipment, "invalid index", kOther},
    {22, kEquipment, "not found", kOther},
    {23, kEquipment, "memory failure", kOther},
    {30, kEquipment, "no network service", kOther},
    {31, kEquipment, "network timeout", kOther},
    {32, kEquipment, "network not allowed - emergency calls only", kOther},
    {40, kEquipment, "network personalization PIN required", kSimLocked},
    {100, kEquipment, "unknown", kOther},
    {300, kMessage, "ME failure", kOther},
    {301, kMessage, "SMS service of ME reserved", kOther},
    {302, kMessage, "operation not allowed", kOther},
    {303, kMessage, "operation not supported", kOther},
    {305, kMessage, "invalid text mode parameter", kOther},
    {310, kMessage, "SIM not inserted", kOther},
    {311, kMessage, "SIM PIN required", kSimLocked},
    {312, kMessage, "PH-SIM PIN required", kSimLocked},
    {313, kMessage, "SIM failure", kOther},
    {314, kMessage, "SIM busy", kSimBusy},
    {315, kMessage, "SIM wrong", kOther},
    {316, kMessage, "SIM PUK required", kSimLocked},
    {320, kMessage, "memory failure", kOther},
    {321, kMessage, "invalid memory index", kOther},
    {322, kMessage, "memory full", kOther},
    {331, kMessage, "no network service", kOther},
    {332, kMessage, "network timeout", kOther},
    {500, kMessage, "unknown error", kOther},
};

struct Prefix {
    std::string_view text;
    Family family;
};

constexpr Prefix kPrefixes[] = {{"+CME ERROR:", kEquipment}, {"+CMS ERROR:", kMessage}};

bool SameWords(std::string_view one, std::string_view other)
{
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::ranges::equal(one, other, {}, lower, lower);
}

// `text` is the number or, as "AT+CMEE=2" asks for it, the words. Some modems send the number anyway.
AtFailure FailureOf(Family family, std::string_view text)
{
    if (const auto number = AtNumber(text)) {
        // The numbers of the two families do not overlap.
        const auto known = std::ranges::find(kCodes, *number, &Code::number);
        if (known == std::end(kCodes))
            return {"error " + std::string(text)};
        return {known->words, known->meaning};
    }
    const auto known = std::ranges::find_if(kCodes, [&](const Code &code) {
        return code.family == family && SameWords(code.words, text);
    });
    return {ValidUtf8(text), known != std::end(kCodes) ? known->meaning : kOther};
}

bool IsUpper(char character)
{
    return character >= 'A' && character <= 'Z';
}

} // namespace

std::optional<AtFailure> ParseFailure(std::string_view line)
{
    for (const Prefix &prefix : kPrefixes) {
        if (line.starts_with(prefix.text))
            return FailureOf(prefix.family, AtTrimmed(line.substr(prefix.text.size())));
    }
    // The last two are no standard, but modems end answers with them.
    if (line == "ERROR" || line == "COMMAND NOT SUPPORT" || line == "TOO MANY PARAMETERS")
        return AtFailure{"refused"};
    return std::nullopt;
}

bool LooksUnsolicited(std::string_view line)
{
    constexpr std::ptrdiff_t kMinName = 2;
    if (line == "RING" || line == "NO CARRIER")
        return true;
    // "+" marks the codes of the standards, the other characters those of makers.
    if (line.empty() || std::string_view("+^*%#").find(line.front()) == std::string_view::npos)
        return false;
    line.remove_prefix(1);
    const auto nameEnd = std::ranges::find_if_not(line, IsUpper);
    return nameEnd - line.begin() >= kMinName && nameEnd != line.end() && *nameEnd == ':';
}
