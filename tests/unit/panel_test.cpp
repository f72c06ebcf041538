// SPDX-License-Identifier: MIT
// Framebuffers whose driver contradicts itself. The driver is this program's own ioctl, the device's memory
// is a file.
#include "panelfb/panel-fb.h"
#include "settings/serial_thread.h"
#include "state/services.h"
#include "test_files.h"

#include <gtest/gtest.h>

#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>

namespace
{

constexpr char kDevice[] = "/dev/fb0";

struct Driver {
    fb_var_screeninfo variable{};
    fb_fix_screeninfo fixed{};
    int answers = 1000; // this many, and then errors
};
Driver s_driver;

int Answer(unsigned long request, void *argument)
{
    if (s_driver.answers-- <= 0) {
        errno = EIO;
        return -1;
    }
    if (request == FBIOGET_VSCREENINFO)
        *static_cast<fb_var_screeninfo *>(argument) = s_driver.variable;
    else if (request == FBIOGET_FSCREENINFO)
        *static_cast<fb_fix_screeninfo *>(argument) = s_driver.fixed;
    else
        s_driver.variable = *static_cast<const fb_var_screeninfo *>(argument);
    return 0;
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    if (request == FBIOGET_VSCREENINFO || request == FBIOGET_FSCREENINFO || request == FBIOPUT_VSCREENINFO)
        return Answer(request, argument);
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

namespace
{

class Panel : public testing::Test
{
protected:
    ~Panel() override { RemoveTestFile(kDevice); }

    static void SetDriver(unsigned width, unsigned height, unsigned bits, unsigned stride, unsigned memory,
                          unsigned start = 0)
    {
        s_driver = {};
        s_driver.variable.xres = width;
        s_driver.variable.yres = height;
        s_driver.variable.yres_virtual = 3 * height;
        s_driver.variable.bits_per_pixel = bits;
        s_driver.fixed.line_length = stride;
        s_driver.fixed.smem_len = memory;
        s_driver.fixed.smem_start = start;
    }
    static std::size_t OpenDescriptors()
    {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }
    static std::string Mappings()
    {
        std::ifstream maps("/proc/self/maps");
        std::string found;
        for (std::string line; std::getline(maps, line);)
            found += line.find(kDevice) != std::string::npos ? line + "\n" : "";
        return found;
    }
};

} // namespace

TEST_F(Panel, HandleReportsWhatTheDriverReports)
{
    struct Row {
        unsigned red, redLength, green, greenLength, blue, blueLength;
        int mode;
        int angle, width, height;
    };
    // red, its length, green, its length, blue, its length, mode, angle, width, height
    const Row rows[] = {
        {11, 5, 5, 6, 0, 5, 0, 0, 800, 480},   {0, 5, 5, 6, 11, 5, 1, 90, 480, 800},
        {16, 8, 8, 8, 0, 8, 2, 180, 800, 480}, {0, 8, 8, 8, 16, 8, 3, 270, 480, 800},
        {10, 5, 5, 5, 0, 5, 4, 360, 800, 480}, {16, 8, 8, 8, 0, 7, 4, -90, 800, 480},
    };
    WriteTestFile(kDevice, std::string(3328 * 480, '\x5A'));
    const std::size_t descriptors = OpenDescriptors();
    for (const Row &row : rows) {
        SetDriver(800, 480, 24, 3328, 3328 * 480 * 2, 0x10010);
        s_driver.variable.red = {row.red, row.redLength, 0};
        s_driver.variable.green = {row.green, row.greenLength, 0};
        s_driver.variable.blue = {row.blue, row.blueLength, 0};
        s_driver.fixed.type = FB_TYPE_PACKED_PIXELS;
        s_driver.fixed.visual = FB_VISUAL_TRUECOLOR;
        const PanelFBPointer fb(panel_fb_new(row.angle, nullptr));
        ASSERT_NE(fb, nullptr);
        EXPECT_EQ(fb->rgbmode, row.mode);
        EXPECT_EQ(fb->angle, row.angle);
        EXPECT_EQ(fb->width, row.width);
        EXPECT_EQ(fb->height, row.height);
        EXPECT_EQ(fb->real_width, 800);
        EXPECT_EQ(fb->real_height, 480);
        EXPECT_EQ(fb->bpp, 24) << "no switch above 16 bits";
        EXPECT_EQ(fb->stride, 3328);
        EXPECT_EQ(fb->visual, FB_VISUAL_TRUECOLOR);
        EXPECT_EQ(fb->blue_length, static_cast<int>(row.blueLength));
        EXPECT_EQ(fb->data - fb->base, 0x10);
        EXPECT_EQ(fb->mapped, 3328U * 480);
        EXPECT_EQ(std::string(fb->base, fb->usable), std::string(3328 * 480, '\x5A'));
        EXPECT_EQ(OpenDescriptors(), descriptors + 1);
        EXPECT_NE(Mappings(), "");
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(Mappings(), "");
    panel_fb_destroy(nullptr);
}

TEST_F(Panel, EveryFailureIsOneLineAndLeavesNothingOpen)
{
    struct Row {
        unsigned width, height, bits, stride;
        int answers;
        std::string line;
    };
    // width, height, bits, stride, answers, line
    const Row rows[] = {
        {8, 8, 32, 32, 0, "Error getting variable framebuffer info: Input/output error\n"},
        {8, 8, 32, 32, 1, "Error getting variable framebuffer info (2): Input/output error\n"},
        {8, 8, 32, 32, 2, "Error getting fixed framebuffer info: Input/output error\n"},
        {8, 8, 32, 0, 9, "Error cannot mmap framebuffer : Invalid argument\n"},
        {8, 0, 32, 32, 9, "Error cannot mmap framebuffer : Invalid argument\n"},
        {8, 8, 32, 0xFFFFFFFF, 9, "Error cannot mmap framebuffer : Value too large for defined data type\n"},
        {8, 0xFFFFFFFF, 32, 32, 9, "Error cannot mmap framebuffer : Value too large for defined data type\n"},
        {0x80000000, 8, 32, 32, 9, "Error cannot mmap framebuffer : Value too large for defined data type\n"},
        {8, 8, 0x80000000, 32, 9, "Error cannot mmap framebuffer : Value too large for defined data type\n"},
    };
    WriteTestFile(kDevice, std::string(4096, '\0'));
    const std::size_t descriptors = OpenDescriptors();
    for (const Row &row : rows) {
        SetDriver(row.width, row.height, row.bits, row.stride, 4096);
        s_driver.answers = row.answers;
        testing::internal::CaptureStderr();
        EXPECT_EQ(panel_fb_new(270, kDevice), nullptr);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.line);
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }
    EXPECT_EQ(Mappings(), "");
}

TEST_F(Panel, SwitchAsksForTheVisibleHeight)
{
    WriteTestFile(kDevice, std::string(4096, '\0'));
    SetDriver(8, 8, 15, 32, 4096);
    const PanelFBPointer fb(panel_fb_new(0, kDevice));
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(s_driver.variable.yres_virtual, 8U);
    EXPECT_EQ(fb->bpp, 32);
    EXPECT_EQ(fb->rgbmode, 3);
}

// Whatever the driver reports, the bytes after the device's memory do not change, also those that a mapping
// of whole pages reaches. A write after the end of the file would end this program.
TEST_F(Panel, NothingIsWrittenOutsideTheDevice)
{
    struct Row {
        unsigned width, height, bits, stride, memory, start;
        std::size_t file, written; // bytes
    };
    // width, height, bits, stride, memory, start, file, written
    const Row rows[] = {
        {100, 50, 32, 400, 20000, 0, 30000, 20000},          // a consistent driver
        {100, 50, 24, 301, 301 * 50, 0, 30000, 301 * 50},    // rows that no pixel divides
        {33, 9, 16, 1027, 1027 * 9, 0, 30000, 1027 * 9},     // rows far longer than their pixels
        {1, 1, 32, 8192, 8192, 0, 8192 + 7, 8192},           // and with a single pixel
        {100, 50, 32, 7, 20000, 0, 30000, 7 * 50},           // rows shorter than their pixels
        {4000, 3, 32, 1, 20000, 0, 30000, 3},                // and of one byte
        {100, 50, 32, 400, 9990, 0, 12288, 9990},            // memory smaller than the geometry
        {100, 50, 32, 400, 4096, 0, 4096, 4096},             // and nothing after it
        {100, 50, 32, 400, 9990, 0x7000 + 33, 12288, 10023}, // memory from the middle of a page on
        {100, 50, 32, 400, 0, 0, 30000, 20000},              // memory of unknown size
        {100, 50, 32, 400, 0xFFFFFFFF, 0xFFF, 30000, 20000}, // memory that is not there
        {100, 50, 18, 250, 12500, 0, 30000, 12500},          // depths that are no bytes
        {0, 20, 32, 128, 2560, 0, 4096, 2560},               // no pixels
        {60000, 2, 64, 480000, 960000, 0, 970000, 960000},   // wide
        {2, 60000, 16, 4, 240000, 0, 250000, 240000},        // high
        {65536, 65536, 64, 8, 8 * 65536, 0, 600000, 524288}, // a buffer beyond all memory
    };
    const std::size_t descriptors = OpenDescriptors();
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        WriteTestFile(kDevice, std::string(row.file, '\x5A'));
        SetDriver(row.width, row.height, row.bits, row.stride, row.memory, row.start);
        SlantPattern pattern;
        pattern.SwitchOn(pattern.Init());
        std::string bytes = *ReadTestFile(kDevice);
        EXPECT_EQ(bytes, std::string(row.written, '\0') + std::string(row.file - row.written, '\x5A'));
        for (int phase = 0; phase < 10; ++phase)
            pattern.Paint();
        bytes = *ReadTestFile(kDevice);
        EXPECT_EQ(bytes.substr(row.written), std::string(row.file - row.written, '\x5A'));
        pattern.Finish();
        EXPECT_EQ(ReadTestFile(kDevice)->find_first_not_of('\0'), row.file == row.written ? -1 : row.written);
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }
}

TEST_F(Panel, ModeThatChangesBetweenTheTwoOpenings)
{
    WriteTestFile(kDevice, std::string(4096 * 4, '\x5A'));
    SetDriver(8, 4, 32, 32, 4096 * 4);
    s_driver.answers = 3;
    testing::internal::CaptureStderr();
    SlantPattern pattern;
    EXPECT_FALSE(pattern.Init()) << "the second opening fails";
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Error getting variable framebuffer info: Input/output error\n");
    EXPECT_EQ(Mappings(), "");
    EXPECT_EQ(*ReadTestFile(kDevice), std::string(128, '\0') + std::string(4096 * 4 - 128, '\x5A'));
}

TEST_F(Panel, NothingIsDrawnWhileItIsOff)
{
    WriteTestFile(kDevice, std::string(128 * 32, '\x5A'));
    SetDriver(32, 32, 32, 128, 128 * 32);
    g_serial = new KSerialThread;
    timeout();
    EXPECT_EQ(*ReadTestFile(kDevice), std::string(128 * 32, '\x5A'));
    g_serial->PaintSlantInit();
    g_serial->PaintSlantInit(); // replaces the first handle
    timeout();
    EXPECT_EQ(*ReadTestFile(kDevice), std::string(128 * 32, '\0')) << "a handle alone draws nothing";
    g_serial->PaintSlantFinish();
    EXPECT_EQ(Mappings(), "");
    EXPECT_TRUE(g_serial->PaintSlantToggle());
    timeout();
    EXPECT_EQ(ReadTestFile(kDevice)->substr(0, 8), std::string("\xFF\xFF\xFF\xFF\0\0\0\0", 8));
    EXPECT_FALSE(g_serial->PaintSlantToggle());
    EXPECT_EQ(*ReadTestFile(kDevice), std::string(128 * 32, '\0'));
    delete g_serial;
    g_serial = nullptr;
}

TEST(PanelBuffer, PixelsStayInside)
{
    PanelFB fb;
    fb.bpp = 32;
    fb.stride = 24;
    fb.width = fb.real_height = 4;
    fb.height = fb.real_width = 6;
    struct Row {
        int x, y;
        std::size_t place; // in the buffer; 0: not drawn
    };
    const Row rows[] = {{1, 0, 4}, {0, 1, 48}, {3, 5, 252}, {4, 0, 0}, {0, 6, 0}, {-1, 2, 0}, {2, -1, 0}};
    for (const Row &row : rows) {
        std::string buffer(24 * 96, '\0');
        PaintSlantSetBuffer(&fb, buffer.data(), row.x, row.y, 1, 2, 3);
        const std::size_t place = buffer.find("\3\2\1\xFF");
        EXPECT_EQ(place, row.place == 0 ? std::string::npos : row.place) << row.x << ", " << row.y;
        EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '\0'), row.place == 0 ? 24 * 96 : 24 * 96 - 4);
    }
}
