// SPDX-License-Identifier: MIT
#include "state/setting_file.h"

#include "base/crc32.h"
#include "base/serial.h"
#include "settings/serial_thread.h"
#include "settings/setting_copies.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace
{

constexpr char kWorkingCopy[] = "/home/root/plexa_data/setting.ss";
constexpr char kBootCopy[] = "/boot/setting.ss";

// Ids of records.
constexpr char kScreenSize = 3;
constexpr char kLuminance = 9;
constexpr char kCleared = 11;
constexpr char kMaxLuminance = static_cast<char>(254);

std::string Record(char id, char value)
{
    return {id, 0, 0, 0, value, 0, 0, 0};
}

// Read as a record it has the head id for its id; the count is 0, which these readers ignore.
std::string Header(char dataLength)
{
    constexpr char kHeadIdLow = 0x6D;
    return Record(kHeadIdLow, dataLength);
}

// A pseudo-terminal whose slave the serial port opens.
class Line
{
public:
    Line() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        grantpt(master_);
        unlockpt(master_);
        path_ = ptsname(master_);
    }
    ~Line() { HangUp(); }
    const char *Path() const { return path_.c_str(); }
    void HangUp()
    {
        if (master_ >= 0)
            close(master_);
        master_ = -1;
    }

private:
    int master_;
    std::string path_;
};

} // namespace

TEST(SettingFile, BootCopyFollowsTheWorkingCopy)
{
    struct Row {
        std::optional<std::string> working;
        std::string boot;
    };
    const std::string header = Header(24);
    const Row rows[] = {
        {header + Record(kLuminance, 40) + Record(kCleared, 1) + Record(14, 7), // the maximum is missing: 1
         header + Record(kLuminance, 1) + Record(kCleared, 0) + Record(14, 7)},
        {header + Record(kMaxLuminance, 80) + Record(kLuminance, 40) + Record(kLuminance, 41) + "cut",
         header + Record(kMaxLuminance, 80) + Record(kLuminance, 80) + Record(kLuminance, 80)},
        {std::nullopt, "old"},
        {"", "old"},
        {"seven b", "old"},
    };
    for (const Row &row : rows) {
        SetTestFile(kWorkingCopy, row.working);
        WriteTestFile(kBootCopy, "old");
        CopySettingToBoot(false);
        EXPECT_EQ(ReadTestFile(kBootCopy), row.boot) << "row " << &row - rows;
    }
}

TEST(SettingFile, ScreenSizeIsTheFourthRecord)
{
    const std::string three = Record(4, 1) + Record(5, 1) + Record(6, 1);
    WriteTestFile(kBootCopy,
                  Header(48) + three + Record(7, 5) + Record(kScreenSize, 9) + Record(kLuminance, 30));
    unsigned width = 1;
    unsigned height = 2;
    unsigned level = 3;
    GetScreenPara(width, height, level);
    EXPECT_EQ(width, 5U);
    EXPECT_EQ(height, 0U);
    EXPECT_EQ(level, 30U);
    WriteTestFile(kBootCopy, Header(40) + three + Record(7, 6) + Record(kScreenSize, 9));
    GetScreenPara(width, height, level);
    EXPECT_EQ(width, 5U) << "the file is too short to hold it";
}

TEST(SettingFile, OneParameterIsPatchedInPlace)
{
    const std::string header = Header(16);
    WriteTestFile(kWorkingCopy, header + Record(5, 1) + Record(kLuminance, 3) + Record(5, 2) + "tail");
    KSerialThread service;
    service.RTSaveSerialPara(5, 0x01020304);
    service.RTSaveSerialPara(77, 1); // not in the file
    const std::string patched{5, 0, 0, 0, 4, 3, 2, 1};
    EXPECT_EQ(ReadTestFile(kWorkingCopy), header + patched + Record(kLuminance, 3) + Record(5, 2) + "tail");
    EXPECT_EQ(ReadTestFile(kBootCopy), header + patched + Record(kLuminance, 0) + Record(5, 2));
    EXPECT_EQ(service.GetScreenSize(), 0U);
}

TEST(SettingFile, CachesAreKeptInRange)
{
    struct Row {
        unsigned maximum, luminance, expected;
    };
    for (const Row &row : {Row{500, 400, 500}, {0, 400, 1}, {1001, 400, 1}, {1000, 2000, 1000}}) {
        const wire::SettingRecord records[] = {{.id = 254, .value = row.maximum},
                                               {.id = 9, .value = row.luminance}};
        WriteTestFile(kWorkingCopy, std::string(reinterpret_cast<const char *>(records), sizeof records));
        EXPECT_EQ(KSerialThread().GetLuminance(), row.expected);
    }
    RemoveTestFile(kWorkingCopy);
    EXPECT_EQ(KSerialThread().GetLuminance(), 1U);
}

TEST(Serial, LineSettings)
{
    struct Row {
        int baud, dataBits;
        char parity;
        int stopBits;
        speed_t speed;
        tcflag_t control; // CSIZE, CSTOPB, PARENB, and PARODD, which only 'E' clears
        bool checked;     // INPCK
    };
    const Row rows[] = {
        {115200, 8, 'n', 1, B115200, CS8 | PARODD, false},
        {1200, 6, 'N', 1, B38400, CS5 | PARODD, false},
        {9600, 7, 'E', 2, B9600, CS7 | PARENB | CSTOPB, true},
        {2400, 8, 'o', 1, B2400, CS8 | PARENB | PARODD, true},
        {57600, 8, 'S', 2, B57600, CS8 | CSTOPB | PARODD, false},
    };
    for (const Row &row : rows) {
        termios before{};
        before.c_cflag = CS6 | CSTOPB | PARODD;
        before.c_lflag = ICANON | ECHO | ISIG;
        const termios settings =
            KSerial::LineSettings(before, row.baud, row.dataBits, row.parity, row.stopBits);
        EXPECT_EQ(cfgetospeed(&settings), row.speed);
        EXPECT_EQ(settings.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB), row.control)
            << "row " << &row - rows;
        EXPECT_EQ((settings.c_iflag & INPCK) != 0, row.checked);
        EXPECT_EQ(settings.c_lflag & (ICANON | ECHO | ISIG), 0U);
        EXPECT_EQ(settings.c_cc[VMIN], 1);
    }
}

TEST(Serial, ClosedAndLostLines)
{
    char byte = 'x';
    KSerial port;
    EXPECT_EQ(port.Write(&byte, 1), -1);
    EXPECT_EQ(port.Read(&byte, 1), -1);
    EXPECT_FALSE(port.Open(nullptr));
    EXPECT_FALSE(port.Open("/dev/no such line"));
    EXPECT_FALSE(port.IsLost());
    EXPECT_EQ(port.SetCommConfig(115200, 8, 'n', 1), -1);

    Line line;
    ASSERT_TRUE(port.Open(line.Path()));
    EXPECT_EQ(port.Write(&byte, 1), 1);
    line.HangUp();
    EXPECT_EQ(port.Write(&byte, 1), -1);
    EXPECT_TRUE(port.IsLost());
    EXPECT_EQ(port.Close(), -1);
    EXPECT_FALSE(port.IsLost()) << "closed on purpose: it is not opened again";
}

TEST(Crc32, StandardValues)
{
    WriteTestFile("/tmp/check", "123456789");
    const int fd = open("/tmp/check", O_RDONLY | O_CLOEXEC);
    std::uint32_t crc = 0;
    std::uint32_t length = 0;
    EXPECT_EQ(crc32(fd, &crc, &length), 0);
    EXPECT_EQ(crc, 0xCBF43926U);
    EXPECT_EQ(length, 9U);
    close(fd);
    EXPECT_EQ(crc32(-1, &crc, &length), 1);
    EXPECT_EQ(crc, 0xCBF43926U);
    crc = 1;
    EXPECT_EQ(crc32("", 0U, &crc), 1);
    EXPECT_EQ(crc, 1U);
}
