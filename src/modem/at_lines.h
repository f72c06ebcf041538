// SPDX-License-Identifier: MIT
// src/modem/at_lines.h: cuts what a modem sends into lines, and lines into the answer of a command (3GPP
// TS 27.007, 4 and 27.005, 3; ITU-T V.250, 5.7). Sees no descriptor. Modem thread.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

constexpr std::size_t kLongestAtLine = 1024;

struct AtLine {
    std::string text;             // without its end; never empty; what is beyond kLongestAtLine is dropped
    std::size_t bytes = 0;        // as many came
    std::size_t bytesBefore = 0;  // line ends between the line before and this one
    std::size_t breaksBefore = 0; // the same, a CR LF counted once
};

// A stream of bytes in any pieces becomes lines. Blank lines show only in the counts of the next one.
class AtLines
{
public:
    void Feed(std::string_view bytes);
    std::optional<AtLine> Next(); // nothing: no whole line is left
    void Clear();

private:
    AtLine current_;
    std::size_t gapBytes_ = 0;
    std::size_t gapBreaks_ = 0;
    bool lastWasReturn_ = false;
    std::deque<AtLine> ready_;
};

enum class AtKind {
    kPlain,    // ends with OK and says nothing else
    kPrefixed, // its lines begin with `prefix`
    kBare,     // one line of text without a prefix, such as the model
    kListing,  // messages: a line that begins with `prefix`, then the text, which may hold any lines
};

struct AtCommand {
    const char *text;
    std::chrono::seconds limit{3};
    AtKind kind = AtKind::kPlain;
    const char *prefix = "";
};

// A line of a listing with the text behind it.
struct AtMessage {
    std::string header;                // behind the prefix
    std::optional<std::size_t> length; // of the text, in characters, where the header tells it
    std::string body;                  // lines joined by a newline
    bool whole = true;                 // false: there was no room for all of it
};

struct AtAnswer {
    bool ok = false;
    std::vector<std::string> lines;  // behind the prefix
    std::vector<AtMessage> messages; // of a listing
    std::string failure;             // why it is not ok, in words
    int failureCode = kNoCode; // the same as a number of 27.007, 9.2 or 27.005, 3.2.5, where it is known
    static constexpr int kNoCode = -1; // a failure without a number
};

// The SIM is not ready yet, as after power-up: the command may be asked again.
inline bool IsBusy(const AtAnswer &answer)
{
    return answer.failureCode == 14 || answer.failureCode == 314;
}

// The SIM, or the modem for it, wants a PIN or PUK.
bool IsLocked(const AtAnswer &answer);

// Takes the lines that come after a command until its final result.
class AtExchange
{
public:
    explicit AtExchange(const AtCommand &command) : command_(command) {}

    bool Take(const AtLine &line); // true: the answer is complete
    // The time is up. True when a listing was complete after all: the length of its last text was wrong, and
    // what looked like text was the final result.
    bool TakeTimeout();

    AtAnswer &Answer() { return answer_; }
    // Lines that belong to no command, as they came.
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
    std::size_t bodyBytes_ = 0; // of the last message, line ends included
    std::size_t held_ = 0;      // bytes of all messages
};

// The line begins as unsolicited result codes do: "+CMTI:", "^RSSI:", "RING".
bool LooksUnsolicited(std::string_view text);
