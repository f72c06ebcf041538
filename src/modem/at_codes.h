// SPDX-License-Identifier: MIT
// src/modem/at_codes.h: result codes of a modem: the failures that end an answer and what they mean, and the
// codes that come unsolicited (ITU-T V.250, 5.7.1; 3GPP TS 27.007, 9.2; 3GPP TS 27.005, 3.2.5). Pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

// What a failure means for the daemon.
enum class AtMeaning {
    kOther,
    kSimBusy,   // the SIM is not ready yet, as after power-up: the command can be repeated
    kSimLocked, // the SIM, or the modem for it, wants a PIN or PUK
};

struct AtFailure {
    std::string words; // UTF-8, such as "SIM busy"; "error 77" if the number is unknown
    AtMeaning meaning = AtMeaning::kOther;
};

// The final result codes other than OK: "ERROR", "+CME ERROR: 14", "+CMS ERROR: SIM busy". Nothing if the
// line is no failure.
std::optional<AtFailure> ParseFailure(std::string_view line);

// Whether the line looks like a result code that no command asked for: "+CMTI: ...", "^RSSI: ...", "RING".
bool LooksUnsolicited(std::string_view line);
