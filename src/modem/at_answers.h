// SPDX-License-Identifier: MIT
// src/modem/at_answers.h: collects the answer of an AT command from lines, and reads what its lines say (3GPP
// TS 27.007 and 27.005; the section stands at each function). Pure; an object belongs to one thread.
#pragma once

#include "modem/at_codes.h"
#include "modem/at_lines.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What comes before the OK.
enum class AtKind {
    kPlain,    // nothing
    kPrefixed, // lines that begin with the command's prefix
    kBare,     // one line without a prefix, such as the model
    kListing,  // messages: a line that begins with the prefix, then the text, which may hold any lines
};

struct AtCommand {
    const char *text;
    std::chrono::seconds limit{3}; // for the whole answer
    AtKind kind = AtKind::kPlain;
    const char *prefix = ""; // of kPrefixed and kListing, colon included
};

// One message of a listing.
struct AtMessage {
    std::string header;                // its first line, without the prefix
    std::optional<std::size_t> length; // of the text in characters, if the header says it
    std::string body;                  // the text, its lines joined by a newline
    bool whole = true;                 // false: the listing is full and the text incomplete
};

struct AtAnswer {
    bool ok = false;
    std::vector<std::string> lines;        // at most 16, without the prefix
    std::vector<AtMessage> messages;       // of a listing, 64 KiB in all
    std::string failure;                   // why it is not ok, in words that begin with the command
    AtMeaning meaning = AtMeaning::kOther; // of the failure
};

// Takes the lines that come after a command until its final result code.
class AtExchange
{
public:
    explicit AtExchange(const AtCommand &command) : command_(command) {} // `command` must outlive it

    bool Take(const AtLine &line); // true: the answer is complete
    // Call it when the time limit has passed. True if the answer is a complete listing after all: the length
    // of its last text was too large, so the final OK was taken for text. The OK is then removed from it.
    bool TakeTimeout();

    AtAnswer &Answer() { return answer_; }
    // Lines that belong to no command, at most 16, as they came.
    const std::vector<std::string> &Unsolicited() const { return unsolicited_; }

private:
    bool BelongsToBody(const AtLine &line) const;
    std::size_t GapInBody(const AtLine &line) const;
    void AddToBody(const AtLine &line);
    void AddMessage(std::string header);
    bool TakeFinal(const std::string &text);

    const AtCommand &command_;
    AtAnswer answer_;
    std::vector<std::string> unsolicited_;
    std::size_t bodyBytes_ = 0; // of the last message's text so far, including its line ends
    std::size_t held_ = 0;      // bytes of all messages
};

// All functions below take a line without its prefix.

struct AtRegistration {
    std::uint32_t status = 0;                // wire::ModemRegistration
    std::optional<std::uint32_t> technology; // if the line names it
};
// "+CREG:" (27.007, 7.2) as an answer ("2,1,\"00C3\",\"01A2B3C4\",2") or unsolicited ("1,00C3,01A2,2").
// Nothing if it begins with no number.
std::optional<AtRegistration> ParseRegistration(std::string_view line);

// "+CSQ:" (27.007, 8.5) in dBm, -113 to -51; nothing if the modem does not know it (99).
std::optional<std::int32_t> ParseSignal(std::string_view line);

struct AtOperator {
    std::string name; // UTF-8; empty without an operator
    std::optional<std::uint32_t> technology;
};
AtOperator ParseOperator(std::string_view line); // "+COPS:" (27.007, 7.3)

struct AtMessageHeader {
    int index = 0;         // of the message's place in the modem's store
    bool received = false; // false: a message that was to be sent
    std::string sender;    // UTF-8
    std::int64_t time = 0; // seconds since 1970, UTC; 0 if it cannot be read
};
// "+CMGL:" in text mode (27.005, 3.4.2), with or without what "AT+CSDH=1" adds. Nothing if the index, the
// status or the sender is missing.
std::optional<AtMessageHeader> ParseMessageHeader(std::string_view header);
// The length of the text in characters, which "AT+CSDH=1" adds to the header; nothing without it.
std::optional<std::size_t> BodyLength(std::string_view header);

// "24/05/17,08:03:09+08", the zone in quarters of an hour (27.005, 3.1, <dt>): seconds since 1970, UTC; 0 if
// it is no valid time.
std::int64_t ParseTimeStamp(std::string_view text);

// "+CGSN" (27.007, 5.4): the digits at the start of the line, at most 17; empty if there are fewer than 14.
// An IMEI has 14 to 16 (3GPP TS 23.003, 6.2).
std::string ParseImei(std::string_view line);
