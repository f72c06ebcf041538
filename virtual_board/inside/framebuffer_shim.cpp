// SPDX-License-Identifier: MIT
// Preloaded into the daemon when the board has screens: they are plain files there, and this answers the
// framebuffer requests on them. Every other request goes to the kernel.
#include "inside/framebuffer_state.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace
{

const inside::FramebufferPaths *FramebufferOf(int fd)
{
    struct stat opened, device;
    if (fstat(fd, &opened) != 0)
        return nullptr;
    for (const inside::FramebufferPaths &paths : inside::kFramebuffers) {
        if (stat(paths.device, &device) == 0 && opened.st_dev == device.st_dev &&
            opened.st_ino == device.st_ino)
            return &paths;
    }
    return nullptr;
}

int Set(inside::FramebufferState &state, const fb_var_screeninfo &wanted, int file)
{
    const bool refused = wanted.bits_per_pixel == 32   ? state.refuses32 != 0
                         : wanted.bits_per_pixel == 16 ? state.refuses16 != 0
                                                       : true;
    if (refused) {
        errno = EINVAL;
        return -1;
    }
    state.variable = wanted;
    state.fixed.line_length = wanted.xres_virtual * wanted.bits_per_pixel / 8 + state.padding;
    return pwrite(file, &state, sizeof state, 0) == static_cast<ssize_t>(sizeof state) ? 0 : -1;
}

int Answer(const char *statePath, unsigned long request, void *argument)
{
    inside::FramebufferState state;
    const int file = open(statePath, O_RDWR | O_CLOEXEC);
    int result = -1;
    if (file >= 0 && pread(file, &state, sizeof state, 0) == static_cast<ssize_t>(sizeof state)) {
        result = 0;
        if (request == FBIOGET_VSCREENINFO)
            *static_cast<fb_var_screeninfo *>(argument) = state.variable;
        else if (request == FBIOGET_FSCREENINFO)
            *static_cast<fb_fix_screeninfo *>(argument) = state.fixed;
        else
            result = Set(state, *static_cast<const fb_var_screeninfo *>(argument), file);
    }
    if (file >= 0)
        close(file);
    return result;
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list rest;
    va_start(rest, request);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    const bool ours =
        request == FBIOGET_VSCREENINFO || request == FBIOGET_FSCREENINFO || request == FBIOPUT_VSCREENINFO;
    const inside::FramebufferPaths *const paths = ours ? FramebufferOf(fd) : nullptr;
    if (paths != nullptr)
        return Answer(paths->state, request, argument);
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
