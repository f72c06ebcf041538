// SPDX-License-Identifier: MIT
// panelfb/panel-fb.h: a Linux framebuffer, opened in a pixel format that can be drawn on and mapped (the
// kernel's linux/fb.h). Any thread; a handle belongs to whoever opened it and is used by one thread at a
// time.
//
// What the driver says about itself need not fit together. Whoever draws keeps within `usable` bytes from
// `base`, whatever width, height, bpp and stride are.
#pragma once

#include <termios.h>

#include <cstddef>
#include <memory>

// Order of the colours in a pixel, from its lowest bit.
enum {
    kRgb565 = 0, // blue, green, red
    kBgr565 = 1, // red, green, blue
    kRgb888 = 2, // blue, green, red
    kBgr888 = 3, // red, green, blue
    kOtherColours = 4,
};

struct PanelFB {
    int fd = -1;
    termios save_termios{}; // not used
    int type = 0;           // of the fixed screen information, as visual
    int visual = 0;
    int width = 0;        // pixels, after rotation
    int height = 0;       // pixels, after rotation
    int bpp = 0;          // bits of a pixel
    int stride = 0;       // bytes of a row
    char *data = nullptr; // the first visible pixel
    char *base = nullptr; // the first byte of the mapping
    int angle = 0;        // degrees; 90 and 270 swap width and height
    int real_width = 0;   // before rotation
    int real_height = 0;
    int rgbmode = kOtherColours;
    int red_offset = 0; // bits, as the five that follow
    int red_length = 0;
    int green_offset = 0;
    int green_length = 0;
    int blue_offset = 0;
    int blue_length = 0;
    std::size_t mapped = 0; // bytes of the mapping: stride times real height
    std::size_t usable = 0; // those of them for which the device has memory
};

// Opens `device`, "/dev/fb0" for NULL, and maps it. Devices of less than 16 bits are switched to 32 bits, or
// else to 16, for all their users. NULL on any failure, reported on standard error in one line; nothing is
// left open then.
PanelFB *panel_fb_new(int angle, const char *device);

// Ends the mapping, closes the device, frees the handle. NULL does nothing.
void panel_fb_destroy(PanelFB *fb);

struct PanelFBDestroy {
    void operator()(PanelFB *fb) const { panel_fb_destroy(fb); }
};
using PanelFBPointer = std::unique_ptr<PanelFB, PanelFBDestroy>;
