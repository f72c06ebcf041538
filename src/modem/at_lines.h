// SPDX-License-Identifier: MIT
// src/modem/at_lines.h: cuts what a modem sends into lines, and a line into its fields (ITU-T V.250, 5.7.1;
// 3GPP TS 27.007, 4). Sees no descriptor. An object belongs to one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

constexpr std::size_t kMaxAtLine = 1024; // bytes kept of a line

// Modems end lines with CR, LF or both. The text of a message may hold line ends, and its length counts them
// as bytes: therefore a line carries what came before it.
struct AtLine {
    std::string text;             // without its end; never empty; bytes beyond kMaxAtLine are dropped
    std::size_t bytes = 0;        // that came, including those dropped
    std::size_t bytesBefore = 0;  // CR and LF since the line before
    std::size_t breaksBefore = 0; // the same, CR LF counted as one
};

// Turns bytes, in pieces of any size, into lines. Blank lines show only in the counts of the next line.
class AtLines
{
public:
    void Feed(std::string_view bytes); // lines beyond 4096 that nobody has fetched are dropped
    std::optional<AtLine> Next();      // nothing if no complete line is left
    void Clear();                      // forgets everything, also an incomplete line

private:
    AtLine current_;
    std::size_t gapBytes_ = 0;
    std::size_t gapBreaks_ = 0;
    bool lastWasReturn_ = false;
    std::deque<AtLine> ready_;
};

struct AtField {
    std::string text;
    bool quoted = false;
};

// The fields between commas, without their quotes and without blanks around them; a comma in quotes is text.
// Never empty: an empty line has one empty field.
std::vector<AtField> AtFields(std::string_view line);

std::string_view AtTrimmed(std::string_view text);            // without blanks at either end
std::optional<std::uint32_t> AtNumber(std::string_view text); // decimal; nothing if it is anything else
