// SPDX-License-Identifier: MIT
// src/settings/slant_pattern.h: slant lines that creep over the panel, with which a technician checks its
// wiring (docs/protocols.md, "Slant lines"). With the setting service's lock held, but for the free function.
#pragma once

#include "panelfb/panel-fb.h"

#include <cstddef>
#include <cstdlib>
#include <memory>

class SlantPattern
{
public:
    // Darkens "/dev/fb0" to "/dev/fb2" and gets ready to draw on the first. False when that does not work
    // (logged); nothing is held then. What was held before is let go.
    bool Init();
    void SwitchOn(bool on) { on_ = on; }
    bool IsOn() const { return on_; }
    void Paint();  // one phase and on to the next; nothing while it is off or not set up
    void Finish(); // darkens the panel and lets go of it

private:
    struct Free {
        void operator()(char *bytes) const { std::free(bytes); }
    };

    bool AllocateBuffer();
    void DrawLines(const PanelFB &geometry);
    void DrawPixel(int x, int y);
    void CopyRow(int row);

    PanelFBPointer target_;
    std::unique_ptr<char, Free> buffer_;
    std::size_t size_ = 0; // of the buffer
    bool on_ = false;
    int phase_ = 0; // 0, then 1 to 8
};

// Sets a pixel of a pattern buffer of `fb`: blue, green, red, 255 in the four bytes at x times the bytes of a
// pixel in row y; a row has twice the stride. Nothing outside width and height, or behind the buffer's end.
void PaintSlantSetBuffer(PanelFB *fb, char *buf, int x, int y, unsigned char red, unsigned char green,
                         unsigned char blue);
