// SPDX-License-Identifier: MIT
// The device-information record and the files that it is filled from.
#include "state/device_record.h"

#include "loop/network_setup.h"
#include "state/addressing_mode.h"
#include "state/device_info.h"
#include "state/server_config.h"
#include "state/system_env.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <sys/mount.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace
{

constexpr char kSettings[] = "/boot/setting.ss";
constexpr char kServerConfig[] = "/home/root/plexa_data/server_config";

std::string Word(std::uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string Entry(std::uint32_t tag, std::uint32_t value)
{
    return Word(tag) + Word(value);
}

// A header, which is an entry of head id and data length, and four records. The screen size is the fourth
// record's value, whatever its id.
std::string Settings(std::uint32_t dataLength, std::uint32_t width, std::uint32_t height)
{
    constexpr std::uint32_t kAnyHeadId = 0x5353;
    return Entry(kAnyHeadId, dataLength) + Entry(1, 0) + Entry(2, 0) + Entry(3, 0) +
           Entry(4, height << 16 | width);
}

wire::DeviceRecord Filled()
{
    InitDeviceInfo();
    return g_device.Copy();
}

} // namespace

TEST(DeviceRecord, IdentifierIsThirteenBytesAndGivesTheType)
{
    struct Row {
        std::optional<std::string> file;
        std::string id;
        int type;
    };
    const Row rows[] = {
        {"C1-0123456789abcdef", "C1-0123456789", 1},
        {"C3", "C3", 0},
        {"K1x", "K1x", 3},
        {"K3x", "K3x", 2},
        {"c1x", "c1x", 2}, // unknown: the type does not change
        {std::nullopt, "", 2},
    };
    for (const Row &row : rows) {
        SetTestFile("/usr/share/id/config", row.file);
        const wire::DeviceRecord record = Filled();
        EXPECT_EQ(std::string(record.id, strnlen(record.id, sizeof record.id)), row.id);
        EXPECT_EQ(record.id[13], 0);
        EXPECT_EQ(record.device_type, row.type) << row.id;
    }
    g_device.setID("K1-345678901234567");
    EXPECT_EQ(std::string(g_device.Copy().id, 14), "K1-34567890123");
    EXPECT_EQ(g_device.Copy().mac[0], 0); // nothing ran over
}

TEST(DeviceRecord, Versions)
{
    struct Row {
        std::optional<std::string> image, version;
        std::uint32_t fpga, plexa;
        const char *message; // of getVersionNO
        const char *error;   // of GetFPGAVersionNo, on standard error
    };
    const Row rows[] = {
        {"\x01\x02\x03\x84\x05\x06\x07\x08rest", "1.2.3.4", 0x00840302, 0x04030201, nullptr, ""},
        {"\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", "255.0.0.250\n", 0x00FFFFFF, 0xFA0000FF, nullptr, ""},
        {"\x01\x02\x03\x04\x05\x06\x07", "", 0, 0, "read fpag file fail.", "reads is 0"},
        {std::nullopt, std::nullopt, 0, 0, "open fpag file fail.", "file is null.\n"},
    };
    for (const Row &row : rows) {
        SetTestFile("/boot/fpga.img", row.image);
        SetTestFile("/home/root/plexa/version", row.version);
        CaptureStdout();
        std::int32_t plexa = -1;
        std::int32_t fpga = -1;
        getVersionNO(&plexa, &fpga);
        const std::string printed = GetCapturedStdout();
        EXPECT_EQ(static_cast<std::uint32_t>(fpga), row.fpga);
        EXPECT_EQ(static_cast<std::uint32_t>(plexa), row.plexa);
        testing::internal::CaptureStderr();
        EXPECT_EQ(static_cast<std::uint32_t>(GetFPGAVersionNo()), row.fpga);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.error);
        if (row.message == nullptr)
            EXPECT_EQ(printed, "");
        else
            EXPECT_NE(printed.find(row.message), std::string::npos) << printed;
    }
}

TEST(DeviceRecord, ScreenSizeComesFromTheFourthRecord)
{
    struct Row {
        std::optional<std::string> file;
        int width, height;
    };
    const Row rows[] = {
        {Settings(48, 320, 160), 320, 160},
        {Settings(41, 65535, 40000), 65535, 40000},
        {Settings(40, 320, 160), 128, 128},
        {Settings(48, 320, 160).substr(0, 39), 128, 128},
        {Settings(48, 320, 160).substr(0, 7), 128, 128},
        {"", 128, 128},
        {std::nullopt, 128, 128},
    };
    for (const Row &row : rows) {
        SetTestFile(kSettings, row.file);
        CaptureStdout();
        int width = 0;
        int height = 0;
        getScreenSize(&width, &height);
        EXPECT_EQ(GetCapturedStdout(), "get screen size: (" + std::to_string(row.width) + ", " +
                                           std::to_string(row.height) + ")\n");
        EXPECT_EQ(width, row.width);
        EXPECT_EQ(height, row.height);
    }
}

TEST(DeviceRecord, ModelTypeIsTheLastRecord22Turned)
{
    struct Row {
        std::optional<std::string> file;
        int type;
    };
    constexpr std::uint32_t kModelType = 22;
    const Row rows[] = {
        {Entry(kModelType, 0), 1},
        {Entry(kModelType, 1), 0},
        {Entry(1, 2) + Entry(kModelType, 7) + Entry(3, 4), 0},
        {Entry(kModelType, 1) + Entry(kModelType, 0), 1},
        // An incomplete record does not count.
        {Entry(kModelType, 0) + Entry(kModelType, 5) + Entry(kModelType, 0).substr(0, 7), 0},
        {Word(1) + Entry(kModelType, 1), 1}, // not at a record's start
        {Settings(48, 1, 1), 1},
        {std::nullopt, 1},
    };
    for (const Row &row : rows) {
        SetTestFile(kSettings, row.file);
        EXPECT_EQ(getModelType(), row.type);
    }
}

TEST(DeviceRecord, NameAndBootPicture)
{
    struct Row {
        std::optional<std::string> file;
        std::string name;
    };
    const Row rows[] = {
        {"North gate", "North gate"}, {std::string(300, 'n'), std::string(249, 'n')},
        {"\xFF\n", "\xFF\n"},         {"", "Controller"},
        {std::nullopt, "Controller"},
    };
    for (const Row &row : rows) {
        SetTestFile("/usr/share/id/name", row.file);
        SetTestFile("/boot/disp.bin", row.file);
        const wire::DeviceRecord record = Filled();
        EXPECT_EQ(std::string(record.name, sizeof record.name).c_str(), row.name);
        EXPECT_EQ(record.boot_screen_flag, row.file ? 1 : 0);
    }
}

TEST(DeviceRecord, BrightnessIsNeverStored)
{
    g_device.setLight(77);
    EXPECT_EQ(g_device.Copy().light, 0);
}

TEST(ServerConfig, PortLines)
{
    struct Row {
        std::string file;
        int port; // 0: no custom port
    };
    const Row rows[] = {
        {"port=0\n", 0},
        {"port=9999\n", 0},
        {"port=10000\n", 10000},
        {"port=65535", 65535},
        {"port=65536\n", 0},
        {"port=70000\n", 0},
        {"port=-12000\n", 0},
        {"port=4294979296\n", 0}, // 12000 when cut to 32 bits
        {" port=12000\n", 0},
        {"Port=12000\nport12000\nport=\n", 0},
        {"# port\nport=12000\nport=12001\n", 12001},
        {"port=12000\nport=9\n", 12000},
        {std::string(300, 'x') + "\nport=12000\n", 12000},
        {"", 0},
    };
    for (const Row &row : rows) {
        SetTestFile(kServerConfig, row.file);
        SetCustomPort(0);
        EXPECT_TRUE(GetUserConfigInfo());
        EXPECT_EQ(GetCustomPort(), row.port) << row.file;
    }
    SetCustomPort(0);

    for (const char *const always : {"modem=always\n", "port=0\nmodem=always", "modem=always\r\nport=0\n"}) {
        SetTestFile(kServerConfig, always);
        EXPECT_TRUE(GetUserConfigInfo());
        EXPECT_TRUE(ModemDialsAlways()) << always;
    }
    for (const char *const other : {"modem=never\n", "#modem=always\n", "modem=always2\n", "port=0\n"}) {
        SetTestFile(kServerConfig, other);
        EXPECT_TRUE(GetUserConfigInfo());
        EXPECT_FALSE(ModemDialsAlways()) << other;
    }
}

TEST(ServerConfig, IsCreatedWhereItIsMissing)
{
    RemoveTestFile("/home/root/plexa_data");
    EXPECT_TRUE(GetUserConfigInfo());
    EXPECT_EQ(ReadTestFile(kServerConfig), "port=0\n");
    EXPECT_EQ(std::filesystem::status("/home/root/plexa_data").permissions(),
              std::filesystem::perms::owner_all);

    RemoveTestFile("/home/root/plexa_data");
    WriteTestFile("/home/root/plexa_data", "a file in the folder's place"); // no folder can be created
    EXPECT_FALSE(GetUserConfigInfo());
    RemoveTestFile("/home/root/plexa_data");
}

TEST(ServerConfig, PortIsReplacedForTheNextStart)
{
    struct Row {
        std::string before, after;
    };
    const std::string longTail(600, '7');
    const Row rows[] = {
        {"port=0\n", "port=12345\n"},
        {"a=1\nport=20000\nb=2", "a=1\nport=12345\nb=2"},
        {"port=1\nport=2\n", "port=12345\nport=12345\n"},
        {"modem=always\nport=0\nmodem=always", "modem=always\nport=12345\nmodem=always"},
        {"a=1\n port=0\n", "a=1\n port=0\n"}, // no such line: unchanged
        {"port=" + longTail + "\nb=2\n", "port=12345\nb=2\n"},
        {std::string(255, 'x') + "port=1\n", std::string(255, 'x') + "port=1\n"}, // not at a line's start
    };
    for (const Row &row : rows) {
        SetTestFile(kServerConfig, row.before);
        WriteCustomPortToFile(12345);
        EXPECT_EQ(ReadTestFile(kServerConfig), row.after);
    }
    RemoveTestFile(kServerConfig);
    WriteCustomPortToFile(12345);
    EXPECT_EQ(ReadTestFile(kServerConfig), std::nullopt);

    // A full disk keeps the old file.
    const char *const folder = "/home/root/plexa_data";
    ASSERT_EQ(mount("none", folder, "tmpfs", 0, "size=4k"), 0);
    WriteTestFile(kServerConfig, "port=10000\n");
    WriteCustomPortToFile(12345);
    EXPECT_EQ(ReadTestFile(kServerConfig), "port=10000\n");
    umount(folder);
}
