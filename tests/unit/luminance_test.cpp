// SPDX-License-Identifier: MIT
// The expected numbers come from a separate script that tries every step from 1 to 1000 and rounds to single
// precision itself; a few were computed on paper.
#include "settings/luminance.h"

#include "settings/serial_thread.h"
#include "state/device_record.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace
{

constexpr char kWorkingCopy[] = "/home/root/plexa_data/setting.ss";

// Ids of records.
constexpr std::uint32_t kScreenSize = 3;
constexpr std::uint32_t kScan = 4;
constexpr std::uint32_t kLuminance = 9;
constexpr std::uint32_t kPulseIndex = 12;
constexpr std::uint32_t kScanRows = 14;
constexpr std::uint32_t kGrayBits = 18;
constexpr std::uint32_t kPulseBank = 26;
constexpr std::uint32_t kW2HFactor = 37;
constexpr std::uint32_t kMbiClock = 40;
constexpr std::uint32_t kWidthSelect = 70;
constexpr std::uint32_t kGap = 74;

using Records = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

void Append(std::string *file, std::uint32_t word)
{
    for (int shift = 0; shift < 32; shift += 8)
        file->push_back(static_cast<char>(word >> shift & 0xFF));
}

std::string SettingFile(const Records &records)
{
    std::string file;
    const auto count = static_cast<std::uint32_t>(records.size());
    constexpr std::uint32_t kHeadId = 0x486D; // two bytes, and two of the count
    const std::uint32_t dataLength = 8 * count;
    Append(&file, kHeadId + 65536 * count);
    Append(&file, dataLength);
    for (const auto &[id, value] : records) {
        Append(&file, id);
        Append(&file, value);
    }
    return file;
}

unsigned Compute(const Records &records, int family)
{
    g_device.setVersionNO(0, family << 16 | 0x0102);
    WriteTestFile(kWorkingCopy, SettingFile(records));
    return KSerialThread().ComputeMaxLuminance();
}

} // namespace

TEST(Luminance, PanelsOfEveryFamily)
{
    struct Row {
        int family;
        std::uint32_t width, height, s, pulse, h, grayBits, bank, k, f, select, g;
        unsigned expected;
    };
    constexpr std::uint32_t kAllOnes = 0xFFFFFFFF;
    // family, width, height, s, pulse, h, gray bits, bank, k, f, select, g, expected
    const Row rows[] = {
        {0, 128, 64, 16, 0, 8, 9, 0, 1, 0, 0, 0, 18},
        {1, 192, 96, 8, 4, 4, 11, 0, 1, 0, 0, 125, 4},
        {3, 256, 128, 4, 2, 2, 7, 1, 1, 0, 0, 0, 101},
        {4, 64, 320, 0, 15, 1, 13, 0, 1, 0, 1, 5, 1}, // width from the high half; the sum wraps
        {5, 1024, 512, 32, 0, 16, 15, 0, 1, 0, 0, 0, 0},
        {10, 128, 128, 16, 9, 8, 9, 1, 1, 0, 0, 0, 1},            // bank 1: the pulse table's last entry
        {0, 128, 64, 16, 0, 0x708, 9, 0, 1, 0, 0, 0, 18},         // only 8 bits of h count
        {0, 128, 64, 16, 10, 8, 9, 1, 1, 0, 0, 0, 0},             // beyond the pulse table
        {0, 128, 64, 16, kAllOnes, 8, 9, 1, 1, 0, 0, 0, 0},       // nor does it wrap into the table
        {0, 128, 64, 16, 0, 8, kAllOnes, 0, 1, 0, 0, 0, 1000},    // no planes
        {0, 128, 64, 16, 0, 8, 2000000000, 0, 1, 0, 0, 0, 0},     // ends at once
        {0, 65535, 1, 1, 15, 255, 3, 0, 1, 0, 0, 0, 1000},        // a negative rate passes
        {0, 128, 64, 10000001, 0, 8, kAllOnes, 0, 1, 0, 0, 0, 0}, // 99 after the cut
        {2, 128, 64, 8, 0, 4, 11, 0, 1, 0, 0, 0, 9},
        {2, 320, 160, 5, 3, 10, 9, 1, 1, 0, 1, 0, 17},
        {2, 128, 64, 1U << 30, 0, 8, 9, 0, 1, 0, 0, 0, 0}, // the divisor wraps to 0
        {6, 64, 32, 16, 0, 2, 9, 0, 3, 0, 0, 0, 18},
        {6, 256, 64, 8, 6, 4, 7, 0, 2, 0, 0, 0, 59},
        {7, 1024, 512, 0, 99, 255, 40, 1, 0, 99, 0, 0, 1000},
        {8, 128, 64, 8, 1, 4, 9, 0, 1, 0, 0, 0, 7},
        {8, 96, 48, 2, 0, 2, 7, 1, 1, 0, 0, 0, 60},
        {8, 128, 64, 1U << 31, 0, 8, 9, 0, 1, 0, 0, 0, 0},
        {9, 128, 64, 16, 0, 8, 9, 0, 1, 0, 0, 0, 1000},
        {9, 128, 64, 32, 77, 8, 9, 0, 1, 15, 0, 0, 0}, // 95 Hz
        {9, 128, 64, 30, 77, 8, 9, 0, 1, 15, 0, 0, 1000},
        {9, 128, 64, 0, 0, 8, 9, 0, 1, 15, 0, 0, 1000}, // s of 0 counts as 1
        {9, 128, 64, 0, 0, 8, 9, 0, 1, 16, 0, 0, 0},    // no such clock
    };
    for (const Row &row : rows) {
        const Records records = {{kScreenSize, row.width + 65536 * row.height},
                                 {kLuminance, 1},
                                 {kScan, row.s},
                                 {kPulseIndex, row.pulse},
                                 {kScanRows, row.h},
                                 {kGrayBits, row.grayBits},
                                 {kPulseBank, row.bank},
                                 {kW2HFactor, row.k},
                                 {kMbiClock, row.f},
                                 {kWidthSelect, row.select},
                                 {kGap, row.g}};
        EXPECT_EQ(Compute(records, row.family), row.expected) << "row " << &row - rows;
    }
}

TEST(Luminance, TenParametersAreNeeded)
{
    const Records nine = {{kScan, 16},    {kPulseIndex, 0},  {kScanRows, 8},
                          {kGrayBits, 9}, {kPulseBank, 0},   {kW2HFactor, 1},
                          {kMbiClock, 0}, {kWidthSelect, 0}, {kGap, 0}};
    EXPECT_EQ(Compute(nine, 7), 0U);
    Records repeated = nine;
    repeated.insert(repeated.begin(), {kMbiClock, 0});
    EXPECT_EQ(Compute(repeated, 7), 1000U);
    // The tenth ends the reading: a size after it is not read, so that the width is 0.
    repeated.emplace_back(kScreenSize, 65535 + 65536 * 64);
    repeated.emplace_back(kPulseIndex, 99);
    EXPECT_EQ(Compute(repeated, 0), 18U);
    RemoveTestFile(kWorkingCopy);
    EXPECT_EQ(KSerialThread().ComputeMaxLuminance(), 0U);
}

TEST(Luminance, RatesInHertz)
{
    EXPECT_EQ(NormalCalRefreshRate(32, 128, 8, 16, 10, 32 * 18, 0), 103);
    EXPECT_EQ(NormalCalRefreshRate(32, 128, 8, 16, 10, 32 * 19, 0), 98);
    EXPECT_EQ(NormalCalRefreshRate(32, 128, 8, 0, 10, 320, 125), 1865);
    EXPECT_EQ(NormalCalRefreshRate(320, 65535, 255, 1, 4, 320, 0), -11);
    EXPECT_EQ(NormalCalRefreshRate(32, 128, 8, -4, 10, 320, 0), -741);
    EXPECT_EQ(HLL5ScanCalRefreshRate(32, 128, 4, 8, 12, 32 * 9), 104);
    EXPECT_EQ(VirtualCalRefreshRate(40, 128, 4, 8, 10, 40 * 8), 92);
    EXPECT_EQ(VirtualCalRefreshRate(40, 128, 4, 0, 0, 40), 250000000);
    EXPECT_EQ(W2HCalRefreshRate(32, 64, 2, 16, 10, 32, 0), 1462);
    EXPECT_EQ(MBI504XCalRefreshRate(5, 7), 1939);
    EXPECT_EQ(MBI504XCalRefreshRate(3, 0), 17441);
}

TEST(Luminance, RefreshOfSixArguments)
{
    const KSerialThread service;
    // One plane of 1 x m + 1000 clocks: 1e9 / 10000000 is 100 Hz exactly, ten more clocks are 99.9999 Hz.
    EXPECT_TRUE(service.ComputeRefresh(1, 1, 1, 1, 1, 9999000));
    EXPECT_TRUE(service.ComputeRefresh(1, 1, 1, 1, 1, 9999004));
    EXPECT_FALSE(service.ComputeRefresh(1, 1, 1, 1, 1, 9999010));
    EXPECT_FALSE(service.ComputeRefresh(1, 1, 1, 2, 1, 9999000));
    EXPECT_TRUE(service.ComputeRefresh(1, 1, 1, 0, 0, 1));
    EXPECT_FALSE(service.ComputeRefresh(320, 65535, 255, 1, 4, 320)); // unsigned: nothing turns negative
}
