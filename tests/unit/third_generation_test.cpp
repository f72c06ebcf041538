// SPDX-License-Identifier: MIT
// Answers of a modem, in all the forms that modems send, and when its link is dialled.
#include "base/paths.h"
#include "modem/at_answers.h"
#include "modem/at_lines.h"
#include "modem/dial_plan.h"
#include "modem/sms_store.h"
#include "modem/sms_text.h"
#include "records/modem_records.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <csignal>

using namespace std::chrono_literals;

namespace
{

constexpr AtCommand kListing{"AT+CMGL=\"ALL\"", 10s, AtKind::kListing, "+CMGL:"};
constexpr AtCommand kRegistration{"AT+CREG?", 3s, AtKind::kPrefixed, "+CREG:"};
constexpr AtCommand kModel{"AT+CGMM", 3s, AtKind::kBare};
constexpr AtCommand kEchoOff{"ATE0"};

// How an answer ended, what it held and what else came, as one text.
std::string Outcome(const AtCommand &command, std::string_view bytes, std::size_t piece, bool timeout = false)
{
    AtLines lines;
    AtExchange exchange(command);
    bool complete = false;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(piece, bytes.size()))) {
        lines.Feed(bytes.substr(0, piece));
        while (const auto line = complete ? std::nullopt : lines.Next())
            complete = exchange.Take(*line);
    }
    complete = complete || (timeout && exchange.TakeTimeout());
    const AtAnswer &answer = exchange.Answer();
    std::string outcome = !complete ? "open" : answer.ok ? "ok" : "failed(" + answer.failure + ")";
    for (const std::string &line : answer.lines)
        outcome += "|" + line;
    for (const AtMessage &message : answer.messages)
        outcome += "|" + message.header.substr(0, 2) + "=" + message.body;
    for (const std::string &line : exchange.Unsolicited())
        outcome += "|!" + line;
    return outcome;
}

constexpr int kTerminated = SIGTERM; // wait status of a process that a signal has killed

int Exited(int status)
{
    return status << 8;
}

} // namespace

TEST(ThirdGeneration, AnswersAreFoundInWhateverComes)
{
    struct Row {
        const AtCommand &command;
        const char *bytes, *expected;
    };
    const Row rows[] = {
        {kEchoOff, "ATE0\r\r\nOK\r\n", "ok"},
        {kEchoOff, "\r\nRING\r\n\r\n^BOOT:1,2\r\n\r\nOK\r\n", "ok|!RING|!^BOOT:1,2"},
        {kEchoOff, "\n\n\rOK\n", "ok"},
        {kEchoOff, "\r\nOK", "open"},
        {kEchoOff, "\r\nERROR\r\n", "failed(ATE0: refused)"},
        {kEchoOff, "\r\n+CME ERROR: 14\r\n", "failed(ATE0: SIM busy)"},
        {kEchoOff, "\r\n+CMS ERROR: 322\r\n", "failed(ATE0: memory full)"},
        {kEchoOff, "\r\n+CME ERROR: Sim Quite Odd\r\n", "failed(ATE0: Sim Quite Odd)"},
        {kEchoOff, "\r\n+CME ERROR: 77\r\n", "failed(ATE0: error 77)"},
        {kRegistration, "AT+CREG?\r\r\n+CREG: 0,1\r\n\r\nOK\r\n", "ok| 0,1"},
        {kRegistration, "\r\n+CREG: 2\r\n\r\n+CMTI: \"SM\",3\r\n\r\n+CREG: 2,5\r\n\r\nOK\r\n",
         "ok| 2| 2,5|!+CMTI: \"SM\",3"},
        {kModel, "\r\n+CREG: 1\r\n\r\nModel 3\r\nRevision 4\r\n\r\nOK\r\n", "ok|Model 3|!+CREG: 1"},
        // Texts that look like a modem's own words, with the length that keeps them apart.
        {kListing, "\r\n+CMGL: 1,\"REC UNREAD\",\"+49\",,\"24/05/17,08:03:09+08\",145,2\r\nOK\r\n\r\nOK\r\n",
         "ok| 1=OK"},
        {kListing,
         "\r\n+CMGL: 1,\"REC UNREAD\",\"+49\",,\"24/05/17,08:03:09+08\",145,15\r\nOK\n\nOK\n+CMTI: 1\r\n"
         "+CMGL: 2,\"REC READ\",\"+49\",,\"24/05/17,08:03:09+08\",145,0\r\n\r\n\r\nOK\r\n",
         "ok| 1=OK\n\nOK\n+CMTI: 1| 2="},
        {kListing,
         "\r\n+CMGL: 1,\"REC UNREAD\",\"+49\",,\"24/05/17,08:03:09+08\",145,6\r\n\nab\n\nc\r\n"
         "^RSSI: 3\r\n+CMGL: 2,\"REC READ\",\"+49\",,24/05/17,08:03:09+08,145,2\r\nhi\r\n\r\nOK\r\n",
         "ok| 1=ab\n\nc| 2=hi|!^RSSI: 3"},
        // Without a length the blank line marks the end.
        {kListing, "+CMGL: 1,\"REC UNREAD\",\"+49\",,\"24/05/17,08:03:09+08\"\r\nOK\r\nmore\r\n\r\nOK\r\n",
         "ok| 1=OK\nmore"},
        {kListing, "\r\nOK\r\n", "ok"},
        {kListing, "\r\n+CMS ERROR: 310\r\n", "failed(AT+CMGL=\"ALL\": SIM not inserted)"},
    };
    for (const Row &row : rows) {
        for (const std::size_t piece : {1U, 2U, 7U, 4096U})
            EXPECT_EQ(Outcome(row.command, row.bytes, piece), row.expected) << row.bytes << " by " << piece;
    }
    // A length that is too large swallows the final result; the time-out gives it back.
    const char *const tooLong =
        "+CMGL: 1,\"REC READ\",\"+49\",,\"24/05/17,08:03:09+08\",145,99\r\nhi\r\n\r\nOK\r\n";
    EXPECT_EQ(Outcome(kListing, tooLong, 5), "open| 1=hi\n\nOK");
    EXPECT_EQ(Outcome(kListing, tooLong, 5, true), "ok| 1=hi");
    EXPECT_EQ(Outcome(kListing, "+CMGL: 1,\"REC READ\",\"+49\"\r\nhi\r\n", 5, true), "open| 1=hi");
}

TEST(ThirdGeneration, FailuresThatMeanALockedSim)
{
    const auto locked = [](const std::string &line) {
        AtExchange exchange(kEchoOff);
        EXPECT_TRUE(exchange.Take({line, line.size()})) << line;
        return exchange.Answer().meaning == AtMeaning::kSimLocked;
    };
    for (const char *const failure : {"5", "11", "12", "17", "18", "40", "sim puk required"})
        EXPECT_TRUE(locked(std::string("+CME ERROR: ") + failure)) << failure;
    for (const char *const failure : {"311", "312", "316", "PH-SIM PIN required"})
        EXPECT_TRUE(locked(std::string("+CMS ERROR: ") + failure)) << failure;
    for (const char *const line : {"ERROR", "+CME ERROR: 10", "+CME ERROR: 13", "+CMS ERROR: 310"})
        EXPECT_FALSE(locked(line)) << line;
}

TEST(ThirdGeneration, NothingGrowsWithoutEnd)
{
    AtLines lines;
    lines.Feed(std::string(100'000, 'x') + "\r\nshort\r\n");
    const auto longest = lines.Next();
    ASSERT_TRUE(longest);
    EXPECT_EQ(longest->text.size(), 1024U);
    EXPECT_EQ(longest->bytes, 100'000U);
    EXPECT_EQ(lines.Next()->text, "short");

    const std::string header = "+CMGL: 1,\"REC UNREAD\",\"+49\",,\"24/05/17,08:03:09+08\",145,1000\r\n";
    AtExchange exchange(kListing);
    for (int i = 0; i < 200; ++i)
        lines.Feed(header + std::string(1000, 'x') + "\r\n");
    lines.Feed("\r\nOK\r\n");
    bool complete = false;
    while (const auto line = lines.Next())
        complete = exchange.Take(*line);
    EXPECT_TRUE(complete);
    const auto &messages = exchange.Answer().messages;
    ASSERT_GT(messages.size(), 50U);
    EXPECT_LT(messages.size(), 70U);
    EXPECT_TRUE(messages.front().whole);
    EXPECT_FALSE(messages.back().whole) << "it must not be deleted from the modem";
    EXPECT_EQ(messages[messages.size() - 2].body.size(), 1000U);
}

TEST(ThirdGeneration, RegistrationInItsManyShapes)
{
    constexpr std::uint32_t kNone = 999;
    struct Row {
        const char *line;
        std::uint32_t status, technology;
    };
    const Row rows[] = {
        {" 0,1", 1, kNone},
        {"0,5", 5, kNone},
        {"1", 1, kNone},
        {" 2 ", 2, kNone},
        {"2,1,\"00C3\",\"01A2B3C4\"", 1, kNone},
        {"2,1,00C3,01A2B3C4", 1, kNone},
        {"2,5,\"00C3\",\"01A2B3C4\",2", 5, 2},
        {"2, 3, 00C3, 01A2B3C4, 0", 3, 0},
        {"1,\"00C3\",\"01A2\"", 1, kNone},
        {"1,00C3,01A2", 1, kNone},
        {"5,\"00C3\",\"01A2B3C4\",6", 5, 6},
        {"5,00C3,01A2B3C4,6", 5, 6},
        {"1,\"1\",\"2\",7", 1, 7}, // quoted: an area, however short
        {"2,1,\"00C3\",\"01A2B3C4\",2,\"00\"", 1, 2},
    };
    for (const Row &row : rows) {
        const auto registration = ParseRegistration(row.line);
        ASSERT_TRUE(registration) << row.line;
        EXPECT_EQ(registration->status, row.status) << row.line;
        EXPECT_EQ(registration->technology.value_or(kNone), row.technology) << row.line;
    }
    for (const char *const line : {"", "x", "\"", ",,,", "-1"})
        EXPECT_FALSE(ParseRegistration(line)) << line;
}

TEST(ThirdGeneration, SignalOperatorIdentityAndTime)
{
    EXPECT_EQ(ParseSignal(" 0,99"), -113);
    EXPECT_EQ(ParseSignal("17"), -79);
    EXPECT_EQ(ParseSignal("31,0"), -51);
    for (const char *const unknown : {"99,99", "32", "", "x", "-1"})
        EXPECT_FALSE(ParseSignal(unknown)) << unknown;

    EXPECT_EQ(ParseOperator(" 0,0,\"Net, the one\",2").name, "Net, the one");
    EXPECT_EQ(ParseOperator("0,0,\"Net\",6").technology, 6U);
    EXPECT_EQ(ParseOperator("0,2,26201").name, "26201");
    EXPECT_EQ(ParseOperator("0,0,\"004E006500740021\",0").name, "Net!");
    EXPECT_EQ(ParseOperator("0,0,\"4E2D56FD79FB52A8\",0").name, "中国移动");
    EXPECT_EQ(ParseOperator("0").name, "");
    EXPECT_EQ(ParseOperator("0,0,\"unclosed").name, "unclosed");

    EXPECT_EQ(ParseImei("490154203237518"), "490154203237518");
    EXPECT_EQ(ParseImei("\"490154203237518\""), "490154203237518");
    EXPECT_EQ(ParseImei("4901542032375"), "");

    EXPECT_EQ(ParseTimeStamp("24/05/17,08:03:09+08"), 1715925789);
    EXPECT_EQ(ParseTimeStamp("24/05/17,08:03:09-05") - ParseTimeStamp("24/05/17,08:03:09+08"), 13 * 900);
    EXPECT_EQ(ParseTimeStamp("24/05/17,08:03:09") - ParseTimeStamp("24/05/17,08:03:09+08"), 8 * 900);
    for (const char *const none : {"", "24/13/17,08:03:09+08", "24/05/17", "yy/MM/dd,hh:mm:ss+00"})
        EXPECT_EQ(ParseTimeStamp(none), 0) << none;
}

TEST(ThirdGeneration, MessageHeaders)
{
    const auto whole =
        ParseMessageHeader(" 7,\"REC UNREAD\",\"+49151\",\"Gate, north\",\"24/05/17,08:03:09+08\",145,5");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->index, 7);
    EXPECT_TRUE(whole->received);
    EXPECT_EQ(whole->sender, "+49151");
    EXPECT_EQ(whole->time, ParseTimeStamp("24/05/17,08:03:09+08"));
    const auto wide = ParseMessageHeader("0,\"REC READ\",\"002B00340039\"");
    EXPECT_EQ(wide->sender, "+49");
    EXPECT_EQ(ParseMessageHeader("0,\"REC READ\",\"00493012\"")->sender, "00493012")
        << "a number that is dialled";
    EXPECT_FALSE(ParseMessageHeader("1,\"STO SENT\",\"+49\",,")->received);
    for (const char *const none :
         {"", "1", "x,\"REC READ\",\"+49\"", "1,\"REC READ\"", "99999,\"REC READ\",\"1\""})
        EXPECT_FALSE(ParseMessageHeader(none)) << none;

    EXPECT_EQ(BodyLength("7,\"REC UNREAD\",\"1\",,\"24/05/17,08:03:09+08\",145,160"), 160U);
    EXPECT_EQ(BodyLength("7,\"REC UNREAD\",\"1\",,24/05/17,08:03:09+08,145,160"), 160U);
    EXPECT_FALSE(BodyLength("7,\"REC UNREAD\",\"1\",,\"24/05/17,08:03:09+08\""));
    EXPECT_FALSE(BodyLength("7,\"REC UNREAD\",\"1\",\"145,3\""));
}

TEST(ThirdGeneration, TextsBecomeUtf8)
{
    using enum ModemCharset;
    const auto none = std::nullopt;
    struct Row {
        ModemCharset charset;
        std::string body;
        std::optional<std::size_t> length;
        const char *expected;
    };
    const Row rows[] = {
        {kUcs2, "00480069", 2, "Hi"},
        {kUcs2, "0048006900200420AC", 4, "0048006900200420AC"}, // no whole characters
        {kUcs2, "20AC00C4FFFE", none, "€Ä\uFFFE"},
        {kUcs2, "D83DDE00", 2, "😀"},
        {kUcs2, "D83D0041", 2, "?A"},             // half a pair
        {kUcs2, "0500030C020100480069", 5, "Hi"}, // a part of a long text
        {kUcs2, "0608040C01020100480069", 6, "Hi"},
        {kUcs2, "plain", 5, "plain"},
        {kGsm, "Hi \x02 \x11\x1B\x65\x1B(", 9, "Hi $ _€{"},
        {kGsm, std::string("\0@\x5B\x7F\x10\x1D", 6), 6, "@¡ÄàΔæ"},
        {kGsm, "\x1B\x41\x1B", none, "A"},
        {kGsm, "1234", 4, "1234"},
        {kGsm, "12345678", none, "12345678"},
        {kGsm, "00480069", 2, "Hi"}, // UCS2 in hexadecimal all the same
        {kGsm, "00480069", none, "Hi"},
        {kGsm, "04200421", none, "РС"},
        {kRaw, "Gr\xC3\xBC\xFF\xDF", none, "Grü\uFFFD\uFFFD"},
        {kRaw, "", 0, ""},
    };
    for (const Row &row : rows)
        EXPECT_EQ(SmsText(row.body, row.length, row.charset), row.expected) << &row - rows;
    std::string all;
    for (int code = 0; code < 128; ++code)
        all += static_cast<char>(code);
    EXPECT_EQ(GsmToUtf8(all).find('?'), GsmToUtf8("0123456789:;<=>?").find('?') + GsmToUtf8(all).find('0'))
        << "every code has its character";
}

TEST(ThirdGeneration, MessagesAreKeptOnTheDisk)
{
    const SmsMessage message{1715925789, "+49\"151", "line\n\x01 and \"quotes\" \xC3\xBC"};
    RemoveTestFile(paths::kSms);
    WriteTestFile(paths::kSms, "{\"sender\":\"1\",\"text\":\"cut of");
    {
        SmsStore store;
        store.Load();
        EXPECT_TRUE(store.Last().empty());
        EXPECT_TRUE(store.Keep(1, message));
        EXPECT_TRUE(store.Keep(1, message)) << "it was not deleted from the modem";
        for (int i = 0; i < 12; ++i)
            EXPECT_TRUE(store.Keep(i, {0, "2", std::to_string(i)}));
    }
    const std::string file = *ReadTestFile(paths::kSms);
    EXPECT_TRUE(
        file.starts_with("{\"sender\":\"1\",\"text\":\"cut of\n"
                         "{\"sender\":\"+49\\\"151\",\"text\":\"line\\n\\u0001 and \\\"quotes\\\" ü\","
                         "\"time\":\"2024-05-17T06:03:09Z\"}\n"
                         "{\"sender\":\"2\",\"text\":\"0\",\"time\":null}\n"))
        << file;
    SmsStore again;
    again.Load();
    ASSERT_EQ(again.Last().size(), 10U);
    EXPECT_EQ(again.Last().front(), (SmsMessage{0, "2", "2"}));
    EXPECT_EQ(again.Last().back(), (SmsMessage{0, "2", "11"}));
    EXPECT_TRUE(again.Keep(9, message)) << "known from before the restart";
    EXPECT_EQ(*ReadTestFile(paths::kSms), file);

    // Without a time the next one may say the same; it is the old one only where that could not be deleted.
    const SmsMessage timeless{0, "2", "11"};
    for (const int place : {1, 1, 2})
        EXPECT_TRUE(again.Keep(place, timeless));
    again.Deleted(1);
    EXPECT_TRUE(again.Keep(1, timeless));
    const std::string line = SmsToJson(timeless) + "\n";
    EXPECT_EQ(*ReadTestFile(paths::kSms), file + line + line + line);

    // The file is bounded.
    const std::string longLine = SmsToJson({0, "3", std::string(500, 'x')}) + "\n";
    std::string large;
    while (large.size() <= 1 << 20)
        large += longLine;
    WriteTestFile(paths::kSms, large);
    EXPECT_TRUE(again.Keep(3, {0, "4", "last"}));
    const std::string shorter = *ReadTestFile(paths::kSms);
    EXPECT_LT(shorter.size(), 600'000U);
    EXPECT_TRUE(shorter.starts_with("{\"sender\":\"3\"")) << "it begins with a whole line";
    EXPECT_TRUE(shorter.ends_with("\"text\":\"last\",\"time\":null}\n"));
    RemoveTestFile(paths::kSms);
    std::filesystem::create_directories(paths::kSms); // no file can be written there
    EXPECT_FALSE(again.Keep(4, {0, "5", "stays in the modem"}));
    RemoveTestFile(paths::kSms);
}

TEST(ThirdGeneration, DialsWithPauses)
{
    using enum DialAction;
    const DialFacts idle;
    const DialFacts ready{.ready = true};
    const DialFacts dials{.ready = true, .pppdRuns = true};
    const DialFacts up{.ready = true, .linkThere = true, .pppdRuns = true};
    const auto ended = [](int status) { return DialFacts{.ready = true, .ended = status}; };
    struct Row {
        int at; // seconds
        DialFacts facts;
        DialAction expected;
        const char *failure;
    };
    const Row rows[] = {
        {0, idle, kNone, ""},
        {1, {.ready = true, .pppdRuns = true}, kNone, ""}, // another program's
        {2, ready, kDial, ""},
        {3, dials, kNone, ""},
        {4, {.ready = true, .pppdRuns = true, .ended = 0}, kNone, ""}, // it went to the background
        {5, up, kNone, ""},
        {100, up, kNone, ""},
        {101, ready, kNone, ""}, // gone: 10 s later again
        {109, ready, kNone, ""},
        {110, ready, kDial, ""},
        {111, ended(kTerminated), kNone, ""}, // by a signal: no failure
        {120, ready, kNone, ""},
        {121, ready, kDial, ""},
        {122, ended(Exited(5)), kNone, ""},
        {132, ready, kDial, ""},
        {133, ended(Exited(128 + 15)), kNone, ""},
        {143, ready, kDial, ""},
        {144, ended(Exited(8)), kNone, "pppd ended with status 8"},
        {153, ready, kNone, ""},
        {154, ready, kDial, ""},
        {155, ended(0), kNone, "pppd ended without a link"},
        {174, ready, kNone, ""},
        {175, idle, kNone, ""}, // no network just now
        {176, ready, kDial, ""},
        {355, dials, kNone, ""},
        {356, dials, kGiveUp, "pppd made no link in time"},
        {395, ready, kNone, ""},
        {396, ready, kDial, ""}, // 40 s later
    };
    DialPlan plan;
    const DialPlan::Time start = std::chrono::steady_clock::now();
    plan.Next(idle, start - 10s); // the cable is out
    for (const Row &row : rows) {
        EXPECT_EQ(plan.Next(row.facts, start + std::chrono::seconds(row.at)), row.expected) << row.at;
        EXPECT_EQ(plan.TakeFailure(), row.failure) << row.at;
    }
    auto now = start + 1000s;
    for (const auto pause : {80s, 160s, 300s, 300s}) {
        plan.Next(ended(Exited(1)), now);
        EXPECT_EQ(plan.Next(ready, now + pause - 1s), kNone) << pause.count();
        EXPECT_EQ(plan.Next(ready, now + pause), kDial) << pause.count();
        now += 1000s;
    }
    plan.Next(up, now);
    EXPECT_EQ(plan.Next(ready, now + 10s), kDial) << "a link that was up counts as a success";
    plan.Next(ended(Exited(1)), now + 11s);
    EXPECT_EQ(plan.Next(ready, now + 21s), kDial) << "and the pauses begin anew";
}

TEST(ThirdGeneration, DialsForAsLongAsTheCableIsOut)
{
    using enum DialAction;
    const DialFacts in{.carrier = true, .ready = true};
    const DialFacts out{.ready = true};
    const DialFacts outDials{.ready = true, .pppdRuns = true};
    const DialFacts outUp{.ready = true, .linkThere = true};
    const DialFacts inDials{.carrier = true, .ready = true, .pppdRuns = true};
    const DialFacts inUp{.carrier = true, .ready = true, .linkThere = true};
    struct Row {
        int at; // seconds
        DialFacts facts;
        DialAction expected;
    };
    const Row rows[] = {
        {0, in, kNone},
        {100, in, kNone},
        {101, out, kNone},
        {110, out, kNone},
        {110, in, kNone}, // the ten seconds begin again
        {111, out, kNone},
        {120, out, kNone},
        {121, out, kDial},
        {122, outDials, kNone},
        {123, inDials, kHangUp}, // before it has a link
        {124, inDials, kNone},
        {132, inDials, kNone},
        {133, inDials, kHangUp}, // it has not ended
        {134, {.carrier = true, .ready = true, .ended = Exited(5)}, kNone},
        {150, inDials, kNone}, // somebody else's now
        {151, inUp, kNone},
        {200, out, kNone},
        {210, out, kDial},
        {211, {.ready = true, .pppdRuns = true, .ended = 0}, kNone}, // in the background
        {212, outUp, kNone},
        {300, inUp, kHangUp}, // at once, and once
        {301, inUp, kNone},
        {302, in, kNone},
        {303, out, kNone},
        {313, out, kDial}, // no pause has grown
        {314, {.ready = true, .ended = Exited(1)}, kNone},
        {315, in, kNone}, // nothing is left to end
    };
    DialPlan plan;
    const DialPlan::Time start = std::chrono::steady_clock::now();
    for (const Row &row : rows)
        EXPECT_EQ(plan.Next(row.facts, start + std::chrono::seconds(row.at)), row.expected) << row.at;

    DialPlan always;
    EXPECT_EQ(always.Next({.always = true, .carrier = true, .ready = true}, start), kDial);
    EXPECT_EQ(always.Next({.always = true, .carrier = true, .ready = true, .linkThere = true}, start + 1s),
              kNone);
}
