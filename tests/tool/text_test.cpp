// SPDX-License-Identifier: MIT
#include "common/pc/text.h"

#include "common/text_field.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace ledboard
{

TEST(Text, BytesFromTheNetworkBecomeHarmless)
{
    struct Row {
        std::string bytes;
        std::string utf8;
        std::string terminal;
    };
    const Row rows[] = {
        {"Main gate", "Main gate", "Main gate"},
        {"\xE5\xA4\xA7\xE5\xB1\x8F", "大屏", "大屏"},
        {"\x1b[2J\r\n\x7f", "\x1b[2J\r\n\x7f", "\\x1b[2J\\x0d\\x0a\\x7f"},
        {"\xC2\x9B"
         "31m",
         "\xC2\x9B"
         "31m",
         "\\x9b31m"}, // a control of one character
        {"a\xE2\x80\xAE"
         "b",
         "a\xE2\x80\xAE"
         "b",
         "a\\u202eb"}, // right-to-left override
        {"\xFF\xFE", "��", "��"},
        {"\xB4\xF3", "��", "��"},                   // another encoding
        {"\xC0\xAF\xE0\x80\xAF", "�����", "�����"}, // overlong
        {"\xED\xA0\x80", "���", "���"},             // surrogate
        {"\xF4\x90\x80\x80", "����", "����"},       // past the last character
        {"x\xE5\xA4", "x��", "x��"},                // cut in the middle
        {"\xF0\x9F\x98\x80", "😀", "😀"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(ToUtf8(row.bytes), row.utf8);
        EXPECT_EQ(ForTerminal(row.bytes), row.terminal);
    }
    const char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(FieldText(field), "abcd");
}

TEST(Text, WidthsCountColumnsAndCutsKeepWholeCharacters)
{
    EXPECT_EQ(DisplayWidth("abc"), 3U);
    EXPECT_EQ(DisplayWidth("大屏"), 4U);
    EXPECT_EQ(DisplayWidth("e\xCC\x81"), 1U); // combining accent
    EXPECT_EQ(Shortened("abcde", 5), "abcde");
    EXPECT_EQ(Shortened("abcdef", 5), "abcd…");
    EXPECT_EQ(Shortened("大屏幕墙", 6), "大屏…");
}

TEST(Text, SizesAndTimes)
{
    EXPECT_EQ(FormatKib(1023), "1023 KiB");
    EXPECT_EQ(FormatKib(716800), "700 MiB");
    EXPECT_EQ(FormatKib(30513562), "29.1 GiB");
    const std::chrono::system_clock::time_point time{std::chrono::milliseconds(1715932989250)};
    EXPECT_EQ(FormatUtc(time), "2024-05-17T08:03:09.250Z");
}

TEST(Text, NumbersAndTimesThatUsersWrite)
{
    EXPECT_EQ(ParseNumber("4294967295"), 0xFFFFFFFFU);
    EXPECT_EQ(ParseNumber("010"), 10U);
    EXPECT_EQ(ParseNumber("0xff"), 255U);
    for (const char *const text : {"", "0x", "4294967296", "-1", "+1", " 1", "1 ", "1.0", "ten"})
        EXPECT_EQ(ParseNumber(text), std::nullopt) << text;

    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    constexpr std::int64_t kTime = 1'779'006'600'000; // 2026-05-17 08:30:00 UTC
    EXPECT_EQ(ParseTime("2026-05-17T08:30:00Z"), kTime);
    EXPECT_EQ(ParseTime("2026-05-17 08:30Z"), kTime);
    EXPECT_EQ(ParseTime("2026-05-17T10:30:00"), kTime);
    EXPECT_EQ(ParseTime("2026-05-17 10:30"), kTime);
    EXPECT_EQ(ParseTime("2026-01-17T09:30"), kTime - std::int64_t{120} * 24 * 3600 * 1000);
    EXPECT_EQ(FormatUtc(std::chrono::milliseconds(kTime + 7)), "2026-05-17T08:30:00.007Z");
    EXPECT_EQ(FormatUtc(std::chrono::milliseconds(253'402'300'799'999)), "9999-12-31T23:59:59.999Z");
    for (const char *const text :
         {"", "yesterday", "2026-05-17", "2026-06-31T08:30", "2026-02-29T08:30Z", "2026-05-17T24:00",
          "2026-05-17T08:30+02", "08:30", "2026-03-29T02:30"}) // the clock is put forward then
        EXPECT_EQ(ParseTime(text), std::nullopt) << text;
}

} // namespace ledboard
