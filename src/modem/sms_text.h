// SPDX-License-Identifier: MIT
// src/modem/sms_text.h: the texts of a modem as UTF-8, and a message as it is kept. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct SmsMessage {
    std::int64_t time = 0; // seconds since 1970, UTC; 0: not known
    std::string sender;    // UTF-8, like the text
    std::string text;
    bool operator==(const SmsMessage &) const = default;
};

// How the modem writes texts: the character set that it took with "AT+CSCS".
enum class ModemCharset {
    kUcs2, // hexadecimal, four digits a character
    kGsm,  // the alphabet of 3GPP TS 23.038, 6.2.1, a byte a character
    kRaw,  // as it likes: taken for UTF-8
};

// The text of a message. Whatever the set is, a modem gives messages in UCS2 in hexadecimal: in kGsm and kRaw
// they are known by `length`, the text's length in characters, or without it by what they would say.
std::string SmsText(std::string_view body, std::optional<std::size_t> length, ModemCharset charset);

// A short text, such as an operator's name: UCS2 in hexadecimal where it cannot be anything else.
std::string FromModemText(std::string_view text);

std::string GsmToUtf8(std::string_view septets);
std::optional<std::string> Ucs2ToUtf8(std::string_view hexadecimal); // nothing: it is none
std::string ValidUtf8(std::string_view bytes);                       // each byte that is none becomes U+FFFD

// One JSON object without a line end: {"sender":"+49151","text":"...","time":"2024-05-17T08:03:09Z"}, a time
// that is not known as null.
std::string SmsToJson(const SmsMessage &message);
std::optional<SmsMessage> SmsFromJson(const std::string &line);
