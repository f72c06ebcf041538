// SPDX-License-Identifier: MIT
#include "terminal/progress.h"

#include <gtest/gtest.h>

namespace ledboard
{

using std::chrono::seconds;

TEST(Progress, SaysHowFarHowFastAndHowLong)
{
    EXPECT_EQ(FormatProgress("sending", {0, 1000, seconds(0)}), "sending 0% 0 B/1000 B 0 B/s, -:-- left");
    EXPECT_EQ(FormatProgress("sending", {52428800, 209715200, seconds(10)}),
              "sending 25% 50 MiB/200 MiB 5 MiB/s, 0:30 left");
    EXPECT_EQ(FormatProgress("sending", {1, 4001, seconds(1)}), "sending 0% 1 B/3 KiB 1 B/s, 1:06:40 left");
    EXPECT_EQ(FormatBar("sending", {1, 2, seconds(1)}),
              "sending [############............]  50% 1 B/s, 0:01 left");
    EXPECT_EQ(FormatBar("sending", {2, 2, seconds(1)}),
              "sending [########################] 100% 2 B/s, 0:00 left");
    EXPECT_EQ(Percent({999999, 1000000, seconds(1)}), 99); // never 100 before the end
    EXPECT_EQ(Percent({0, 0, seconds(0)}), 100);
    constexpr std::uint64_t kHuge = std::uint64_t{1} << 62U;
    EXPECT_EQ(Percent({kHuge, 2 * kHuge, seconds(1)}), 50);
}

TEST(Progress, ALineEachTenPerCentOffATerminal)
{
    Output output("ledboard", {.json = true});
    testing::internal::CaptureStdout();
    {
        Progress progress(output, "C1-0000000001", "sending", 1000, true);
        for (int i = 0; i < 1000; ++i)
            progress.Advance(1);
    }
    output.Finish();
    std::istringstream lines(testing::internal::GetCapturedStdout());
    std::string line;
    for (int percent = 10; percent <= 100; percent += 10) {
        ASSERT_TRUE(std::getline(lines, line)) << percent;
        EXPECT_EQ(nlohmann::json::parse(line)["progress"]["percent"], percent);
    }
    EXPECT_FALSE(std::getline(lines, line));
}

} // namespace ledboard
