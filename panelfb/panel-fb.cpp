// SPDX-License-Identifier: MIT
#include "panelfb/panel-fb.h"

#include <fcntl.h>
#include <linux/fb.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <new>
#include <utility>

namespace
{

// Offset and length of red, green and blue, in bits.
using Colours = std::array<unsigned, 6>;

struct Format {
    unsigned bits;
    Colours colours;
    const char *name; // as the lines show it
};

constexpr Format kSwitch32{32, {0, 8, 8, 8, 16, 8}, "32 bpp 8,8,8"};
constexpr Format kSwitch16{16, {11, 5, 5, 6, 0, 5}, "16 bpp 5,6,5"};

// By rgbmode, whatever the depth.
constexpr Colours kModes[] = {
    {11, 5, 5, 6, 0, 5},
    {0, 5, 5, 6, 11, 5},
    {16, 8, 8, 8, 0, 8},
    {0, 8, 8, 8, 16, 8},
};

bool Fail(const char *text)
{
    std::perror(text);
    return false;
}

bool SwitchTo(const PanelFB &fb, fb_var_screeninfo variable, const Format &format)
{
    const Colours &colours = format.colours;
    variable.bits_per_pixel = format.bits;
    variable.red = {colours[0], colours[1], 0};
    variable.green = {colours[2], colours[3], 0};
    variable.blue = {colours[4], colours[5], 0};
    variable.transp = {};
    if (ioctl(fb.fd, FBIOPUT_VSCREENINFO, &variable) == -1) {
        std::fprintf(stderr, "Error, failed to switch to a %s frame buffer\n", format.name);
        return false;
    }
    std::printf("Switched to a %s frame buffer\n", format.name);
    return true;
}

// False when the depth stays one that cannot be drawn on.
bool Negotiate(const PanelFB &fb, fb_var_screeninfo variable)
{
    constexpr unsigned kLeastBits = 16;
    if (variable.bits_per_pixel >= kLeastBits)
        return true;
    std::fprintf(stderr,
                 "Error, no support currently for %i bpp frame buffers\nTrying to change pixel format...\n",
                 static_cast<int>(variable.bits_per_pixel));
    variable.yres_virtual = variable.yres;
    return SwitchTo(fb, variable, kSwitch32) || SwitchTo(fb, variable, kSwitch16);
}

int ModeOf(const fb_var_screeninfo &variable)
{
    const Colours colours = {variable.red.offset,   variable.red.length,  variable.green.offset,
                             variable.green.length, variable.blue.offset, variable.blue.length};
    return static_cast<int>(std::find(std::begin(kModes), std::end(kModes), colours) - kModes);
}

void Fill(PanelFB *fb, const fb_var_screeninfo &variable, const fb_fix_screeninfo &fixed)
{
    const auto number = [](std::uint32_t value) { return static_cast<int>(value); };
    fb->type = number(fixed.type);
    fb->visual = number(fixed.visual);
    fb->width = fb->real_width = number(variable.xres);
    fb->height = fb->real_height = number(variable.yres);
    fb->bpp = number(variable.bits_per_pixel);
    fb->stride = number(fixed.line_length);
    fb->red_offset = number(variable.red.offset);
    fb->red_length = number(variable.red.length);
    fb->green_offset = number(variable.green.offset);
    fb->green_length = number(variable.green.length);
    fb->blue_offset = number(variable.blue.offset);
    fb->blue_length = number(variable.blue.length);
    fb->rgbmode = ModeOf(variable);
}

// Numbers that no device has would wrap where they are multiplied.
bool Believable(const fb_var_screeninfo &variable, const fb_fix_screeninfo &fixed)
{
    constexpr unsigned kMaxBits = 64;
    constexpr unsigned kMaxSide = 65536;
    return variable.xres <= kMaxSide && variable.yres <= kMaxSide && variable.bits_per_pixel <= kMaxBits &&
           fixed.line_length <= INT_MAX && std::uint64_t{fixed.line_length} * variable.yres <= PTRDIFF_MAX;
}

bool Map(PanelFB *fb, const fb_fix_screeninfo &fixed)
{
    const std::size_t size = static_cast<std::size_t>(fb->stride) * static_cast<std::size_t>(fb->height);
    void *const base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fb->fd, 0);
    if (base == MAP_FAILED)
        return false;
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const auto start = static_cast<std::size_t>(fixed.smem_start % page);
    fb->base = static_cast<char *>(base);
    fb->data = fb->base + start;
    fb->mapped = size;
    // A mapping may reach beyond the device's memory and fault there. Without a reported size: as mapped.
    const std::uint64_t memory = fixed.smem_len == 0 ? size : std::uint64_t{fixed.smem_len} + start;
    fb->usable = static_cast<std::size_t>(std::min<std::uint64_t>(size, memory));
    return true;
}

bool Open(PanelFB *fb, const char *device)
{
    fb_var_screeninfo variable{};
    fb_fix_screeninfo fixed{};
    fb->fd = open(device, O_RDWR | O_CLOEXEC);
    // QUIRK fb0-in-every-line: the line names "/dev/fb0" whichever device does not open; the device's own
    // name would be expected.
    if (fb->fd == -1)
        return Fail("Error opening /dev/fb0");
    if (ioctl(fb->fd, FBIOGET_VSCREENINFO, &variable) == -1)
        return Fail("Error getting variable framebuffer info");
    if (!Negotiate(*fb, variable))
        return false;
    if (ioctl(fb->fd, FBIOGET_VSCREENINFO, &variable) == -1)
        return Fail("Error getting variable framebuffer info (2)");
    if (ioctl(fb->fd, FBIOGET_FSCREENINFO, &fixed) == -1)
        return Fail("Error getting fixed framebuffer info");
    if (!Believable(variable, fixed)) {
        errno = EOVERFLOW;
        return Fail("Error cannot mmap framebuffer ");
    }
    Fill(fb, variable, fixed);
    return Map(fb, fixed) || Fail("Error cannot mmap framebuffer ");
}

} // namespace

PanelFB *panel_fb_new(int angle, const char *device)
{
    PanelFBPointer fb(new (std::nothrow) PanelFB);
    if (!fb) {
        std::perror("Error no memory");
        return nullptr;
    }
    if (!Open(fb.get(), device != nullptr ? device : "/dev/fb0"))
        return nullptr;
    fb->angle = angle;
    if (angle == 90 || angle == 270)
        std::swap(fb->width, fb->height);
    return fb.release();
}

void panel_fb_destroy(PanelFB *fb)
{
    if (fb == nullptr)
        return;
    if (fb->base != nullptr)
        munmap(fb->base, fb->mapped);
    if (fb->fd != -1)
        close(fb->fd);
    delete fb;
}
