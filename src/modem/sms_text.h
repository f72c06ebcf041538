// SPDX-License-Identifier: MIT
// src/modem/sms_text.h: decodes the texts of a modem into UTF-8, and a message into JSON and back. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct SmsMessage {
    std::int64_t time = 0; // seconds since 1970, UTC; 0: not known
    std::string sender;    // UTF-8
    std::string text;      // UTF-8
    bool operator==(const SmsMessage &) const = default;
};

// The character set in which the modem writes texts; the one that it accepted with "AT+CSCS" (3GPP TS 27.007,
// 5.5).
enum class ModemCharset {
    kUcs2, // hexadecimal, four digits per character
    kGsm,  // the alphabet of 3GPP TS 23.038, 6.2.1, one byte per character
    kRaw,  // it accepted none: taken for UTF-8
};

// Decodes the text of a message. A text that its sender wrote in UCS2 comes in hexadecimal with every
// character set: in kGsm and kRaw it is recognised by `length`, its length in characters, or without that by
// what it would say.
std::string SmsText(std::string_view body, std::optional<std::size_t> length, ModemCharset charset);

// Decodes a short text, such as an operator's name or a number: as UCS2 in hexadecimal if it cannot be
// anything else, otherwise as UTF-8.
std::string FromModemText(std::string_view text);

std::string GsmToUtf8(std::string_view septets); // one septet per byte; the highest bit is ignored
// Nothing unless there are four digits per character. Without the header of a part of a long message (3GPP TS
// 23.040, 9.2.3.24.1 and .8).
std::optional<std::string> Ucs2ToUtf8(std::string_view hexadecimal);
std::string ValidUtf8(std::string_view bytes); // each byte that is not UTF-8 becomes U+FFFD

// One JSON object without a line end: {"sender":"+49151","text":"...","time":"2024-05-17T08:03:09Z"}; a time
// that is not known is null.
std::string SmsToJson(const SmsMessage &message);
std::optional<SmsMessage> SmsFromJson(const std::string &line); // nothing if sender or text is missing
