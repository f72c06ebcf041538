// SPDX-License-Identifier: MIT
// src/modem/at_answers.h: what the lines of an answer say (3GPP TS 27.007 and 27.005). Pure; lines come
// without their prefix.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct AtField {
    std::string text;
    bool quoted = false;
};

// Fields between commas, without blanks around them and without their quotes; a comma in quotes is text.
std::vector<AtField> AtFields(std::string_view line);

struct AtFailure {
    int code = -1; // of 27.007, 9.2 or 27.005, 3.2.5; -1: none
    std::string words;
};
// "ERROR", "+CME ERROR: 14", "+CMS ERROR: SIM busy"; nothing when the line is no failure.
std::optional<AtFailure> ParseFailure(std::string_view line);

struct AtRegistration {
    std::uint32_t status = 0;                // wire::ModemRegistration
    std::optional<std::uint32_t> technology; // where the line tells it
};
// "+CREG:" asked for ("2,1,\"00C3\",\"01A2B3C4\",2") or unsolicited ("1,00C3,01A2,2"), quoted or bare.
std::optional<AtRegistration> ParseRegistration(std::string_view line);

// "+CSQ:" in dBm; nothing when the modem does not know it (99).
std::optional<std::int32_t> ParseSignal(std::string_view line);

struct AtOperator {
    std::string name; // empty: none
    std::optional<std::uint32_t> technology;
};
AtOperator ParseOperator(std::string_view line); // "+COPS:"

// A message's header of "+CMGL:", as "AT+CSDH=1" makes it or without what that adds.
struct AtMessageHeader {
    int index = 0;
    bool received = false; // not one that was to be sent
    std::string sender;
    std::int64_t time = 0; // seconds since 1970, UTC; 0: not readable
};
std::optional<AtMessageHeader> ParseMessageHeader(std::string_view header);
std::optional<std::size_t> BodyLength(std::string_view header); // characters of the text

// "24/05/17,08:03:09+08", the zone in quarters of an hour: seconds since 1970, UTC; 0 when it is no time.
std::int64_t ParseTimeStamp(std::string_view text);

// The digits that a line begins with, at most 17; empty when there are fewer than 14.
std::string ParseImei(std::string_view line);
