// SPDX-License-Identifier: MIT
// What the daemon asks of its board: addresses, gateway, addressing mode and USB disk.
#include "state/system_env.h"

#include "base/shell.h"
#include "loop/network_setup.h"
#include "state/device_record.h"
#include "state/usb_monitor.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <iterator>

namespace fs = std::filesystem;

namespace
{

constexpr char kUsbDisk[] = "/home/root/usb_dev";
constexpr long long kMebibyte = 1 << 20;

std::ptrdiff_t OpenDescriptors()
{
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// An eth0 with an address, as on the board.
class Eth0 : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "these tests need a network of their own";
    }
    void SetUp() override
    {
        ASSERT_EQ(RunShell("ip link add eth0 address 02:00:0a:00:bc:01 type veth peer name pc0 && "
                           "ip address add 10.9.8.7/20 dev eth0 && ip address add 10.7.0.1/16 dev pc0 && "
                           "ip link set eth0 up && ip link set pc0 up"),
                  0);
    }
    void TearDown() override { RunShell("ip link delete eth0"); }
};

// A disk of `size` bytes in the place of the USB disk; `used` bytes of it are in use.
class UsbDisk
{
public:
    UsbDisk(long long size, long long used)
    {
        fs::create_directories(kUsbDisk);
        EXPECT_EQ(mount("none", kUsbDisk, "tmpfs", 0, ("size=" + std::to_string(size)).c_str()), 0);
        if (used == 0)
            return;
        const int fd = open((std::string(kUsbDisk) + "/used").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        EXPECT_EQ(fallocate(fd, 0, 0, used), 0);
        close(fd);
    }
    ~UsbDisk() { umount(kUsbDisk); }
    UsbDisk(const UsbDisk &) = delete;
    UsbDisk &operator=(const UsbDisk &) = delete;

    // A folder of programs with a file of that length, which takes no room.
    void AddPrograms(long long length)
    {
        const std::string path = std::string(kUsbDisk) + "/tarvo/deep/film";
        WriteTestFile(path, "");
        fs::resize_file(path, static_cast<std::uintmax_t>(length));
    }
};

} // namespace

TEST_F(Eth0, AddressInNetworkOrderMaskInHostOrder)
{
    unsigned char mac[6] = {};
    EXPECT_EQ(GetLocalIPAddress("eth0"), static_cast<std::int32_t>(inet_addr("10.9.8.7")));
    EXPECT_EQ(GetLocalMask("eth0"), 0xFFFFF000U);
    EXPECT_EQ(GetLocalIPAddress("lo"), 0); // 127.0.0.1 does not count
    EXPECT_EQ(GetLocalIPAddress("eth1"), 0);
    EXPECT_EQ(GetLocalMask("eth1"), 0U);
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetLocalMac("eth1", mac), 0);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(printed.starts_with("[---src/system_env.c::GetLocalMac::")) << printed;
    EXPECT_TRUE(printed.ends_with("---] ioctl SIOCGIFHWADDR No such device, 19.\n")) << printed;
    RunShell("ip address flush dev eth0");
    EXPECT_EQ(GetLocalIPAddress("eth0"), 0);
    EXPECT_EQ(GetLocalMask("eth0"), 0U);
}

TEST_F(Eth0, MacQueryKeepsItsSocket)
{
    const auto before = OpenDescriptors();
    unsigned char mac[6] = {};
    EXPECT_EQ(GetLocalMac("eth0", mac), 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(mac), 6), std::string("\x02\0\x0a\0\xbc\x01", 6));
    EXPECT_EQ(OpenDescriptors(), before + 1);
    GetLocalMask("eth0");
    GetGateway("eth0");
    GetLocalIPAddress("eth0");
    EXPECT_EQ(OpenDescriptors(), before + 1);
}

TEST_F(Eth0, EnvironmentFillsTheRecordWithBlanksInTheMac)
{
    RunShell("ip route add default via 10.9.0.3");
    WriteTestFile("/etc/network/interfaces", "iface eth0 inet static\n");
    EXPECT_TRUE(GetSystemEnvInfo());
    const wire::DeviceRecord record = g_device.Copy();
    EXPECT_EQ(std::string(record.mac, sizeof record.mac), " 2: 0: a: 0:bc: 1");
    EXPECT_EQ(record.ipaddr, static_cast<std::int32_t>(inet_addr("10.9.8.7")));
    EXPECT_EQ(static_cast<std::uint32_t>(record.maskaddr), 0xFFFFF000U);
    EXPECT_EQ(record.gwaddr, 0x0A090003);
}

TEST_F(Eth0, GatewayIsTheLastDefaultRouteOfTheMainTable)
{
    struct Row {
        const char *commands;
        std::uint32_t gateway;
    };
    const Row rows[] = {
        {"true", 0},
        {"ip route add default via 10.9.0.1", 0x0A090001},
        {"ip route add default via 10.7.0.9 dev pc0", 0}, // another interface's
        {"ip route add default dev eth0", 0},             // no gateway
        {"ip route add default via 10.9.0.1 table 100", 0},
        {"ip route add 10.50.0.0/16 via 10.9.0.1", 0},
        {"ip route add default via 10.9.0.1 metric 5; ip route add default via 10.9.0.2 metric 9",
         0x0A090002},
        {"ip route add default via 10.9.0.1; ip route add default via 10.7.0.9 dev pc0 metric 9", 0x0A090001},
        // More than one receive can hold.
        {"i=0; while [ $i -lt 800 ]; do echo route add 10.60.$((i / 256)).$((i % 256)) via 10.9.0.4; "
         "i=$((i + 1)); done | ip -batch -; ip route add default via 10.9.0.1",
         0x0A090001},
    };
    for (const Row &row : rows) {
        RunShell(row.commands);
        EXPECT_EQ(GetGateway("eth0"), row.gateway) << row.commands;
        RunShell("ip route flush table 100 2> /dev/null; ip route flush root 0/0 proto boot");
    }
}

TEST(SystemEnv, FixedAddressIsAStaticLineOfEth0)
{
    struct Row {
        std::optional<std::string> file;
        int fixed;
    };
    const Row rows[] = {
        {"auto lo\niface lo inet loopback\nauto eth0\niface eth0 inet static\naddress 10.0.0.2\n", 1},
        {"iface eth0 inet static", 1},
        {"iface eth0 inet dhcp\n", 0},
        {"iface eth0 inet dhcp\niface eth0 inet static\n", 1},
        {"#iface eth0 inet static\n", 0},
        {" iface eth0 inet static\n", 0},
        {"iface eth0 inet  static\n", 0},
        {"iface eth1 inet static\n", 0},
        {std::string(2000, '#') + "\niface eth0 inet static\n", 1},
        {"", 0},
        {std::nullopt, 0},
    };
    for (const Row &row : rows) {
        SetTestFile("/etc/network/interfaces", row.file);
        EXPECT_EQ(CheckIsFixedIPAddress(), row.fixed) << row.file.value_or("missing");
    }
}

TEST(SystemEnv, UsbDiskCountsAboveItsLimits)
{
    struct Row {
        long long size, used; // MiB
        long long programs;   // MiB, -1: no folder of programs
        std::int32_t room;    // KiB
        int lines = 3;        // that are printed: total, free, program
    };
    const Row rows[] = {
        {600, 0, -1, 0, 1},
        {699, 0, 500, 0, 1},
        {700, 0, -1, 700 * 1024, 2},
        {720, 420, -1, 0, 2}, // exactly 300 MiB are free
        {720, 419, -1, 301 * 1024, 2},
        {720, 520, 100, 0},
        {720, 520, 101, 301 * 1024},
        {8192, 0, 9000, (8192 + 9000) * 1024},
        {8192, 0, 3000000, 2147483647}, // more KiB than the record can hold
    };
    for (const Row &row : rows) {
        UsbDisk disk(row.size * kMebibyte, row.used * kMebibyte);
        if (row.programs >= 0)
            disk.AddPrograms(row.programs * kMebibyte);
        testing::internal::CaptureStdout();
        EXPECT_EQ(CheckIsUDiskCard(), row.room) << row.size << " " << row.used << " " << row.programs;
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(printed.starts_with("[---src/system_env.c::CheckIsUDiskCard::")) << printed;
        const long long sizes[] = {row.size, row.size - row.used, row.programs};
        std::string lines = "---] \n";
        for (int line = 0; line < row.lines; ++line)
            lines += std::array{"total", "free", "program"}.at(static_cast<std::size_t>(line)) +
                     (" size: " + std::to_string(sizes[line] * kMebibyte)) + "\n";
        EXPECT_EQ(printed.substr(printed.find("---] ")), lines);
    }
}

TEST(SystemEnv, FolderSizeFollowsLinksOnceAndSkipsWhatIsBroken)
{
    const std::string top = "/tmp/size";
    RemoveTestFile(top);
    WriteTestFile(top + "/a", std::string(10, 'x'));
    WriteTestFile(top + "/.hidden/b", std::string(200, 'x'));
    WriteTestFile(top + "/.hidden/deep/\xFFname", std::string(3000, 'x'));
    fs::create_directories(top + "/empty");
    fs::create_symlink("a", top + "/link"); // a file counts by each of its names
    fs::create_directory_symlink("..", top + "/.hidden/up");
    fs::create_directory_symlink(top, top + "/empty/again");
    fs::create_symlink("nowhere", top + "/broken");
    testing::internal::CaptureStdout();
    EXPECT_EQ(GetFolderSize(top), 10 + 200 + 3000 + 10);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("[---src/usb_monitor.c::GetFolderSize::"), std::string::npos);
    EXPECT_NE(printed.find(top + "/broken No such file or directory, 2.\n"), std::string::npos) << printed;
    EXPECT_EQ(GetFolderSize(top + "/nothing"), 0);
    EXPECT_EQ(GetFolderSize(top + "/a"), 0);
}
