// SPDX-License-Identifier: MIT
#include "text.h"

#include <gtest/gtest.h>

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
    EXPECT_EQ(UntilZero(field), "abcd");
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

} // namespace ledboard
