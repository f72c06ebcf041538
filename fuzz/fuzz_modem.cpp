// SPDX-License-Identifier: MIT
// The bytes that a modem sends: the answer is the same whatever pieces they come in, nothing grows beyond its
// limit, and every text and number in them can be read.
#include "modem/at_answers.h"
#include "modem/at_codes.h"
#include "modem/at_lines.h"
#include "modem/sms_text.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace
{

constexpr AtCommand kCommands[] = {
    {"AT+CMGL=\"ALL\"", std::chrono::seconds(10), AtKind::kListing, "+CMGL:"},
    {"AT+CREG?", std::chrono::seconds(3), AtKind::kPrefixed, "+CREG:"},
    {"AT+CGMM", std::chrono::seconds(3), AtKind::kBare},
    {"ATE0"},
};

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

// All of an answer as one text.
std::string Describe(const AtCommand &command, std::string_view bytes, std::size_t piece)
{
    AtLines lines;
    AtExchange exchange(command);
    bool complete = false;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
        lines.Feed(bytes.substr(0, piece));
        while (const auto line = complete ? std::nullopt : lines.Next()) {
            Require(!line->text.empty() && line->text.size() <= kMaxAtLine);
            complete = exchange.Take(*line);
        }
    }
    complete = complete || exchange.TakeTimeout();
    std::string text = complete ? "complete" : "open";
    text += exchange.Answer().ok ? " ok " : exchange.Answer().failure;
    for (const std::string &line : exchange.Answer().lines)
        text += "\n" + line;
    for (const AtMessage &message : exchange.Answer().messages)
        text += "\n" + message.header + "\n" + message.body;
    for (const std::string &line : exchange.Unsolicited())
        text += "\n!" + line;
    return text;
}

void ReadAll(const std::string &text)
{
    ParseRegistration(text);
    ParseOperator(text);
    ParseFailure(text);
    const auto signal = ParseSignal(text);
    Require(!signal || (*signal >= -113 && *signal <= -51));
    const std::string imei = ParseImei(text);
    Require(imei.empty() || (imei.size() >= 14 && imei.size() <= 17));
    const auto header = ParseMessageHeader(text);
    for (const auto charset : {ModemCharset::kUcs2, ModemCharset::kGsm, ModemCharset::kRaw}) {
        for (const std::optional<std::size_t> length : {std::optional<std::size_t>(), BodyLength(text)}) {
            const SmsMessage message{header ? header->time : 0, header ? header->sender : "",
                                     SmsText(text, length, charset)};
            const auto again = SmsFromJson(SmsToJson(message));
            Require(again && *again == message);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return -1;
    const AtCommand &command = kCommands[data[0] & 3];
    const std::string_view bytes(reinterpret_cast<const char *>(data) + 1, size - 1);
    const std::string whole = Describe(command, bytes, bytes.size() + 1);
    Require(whole.size() < 200'000);
    Require(Describe(command, bytes, 1) == whole);
    Require(Describe(command, bytes, 1 + data[0] / 4) == whole);
    ReadAll(std::string(bytes));
    return 0;
}
