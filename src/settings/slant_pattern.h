// SPDX-License-Identifier: MIT
// src/settings/slant_pattern.h: slant lines that creep over the panel, so that a technician can check how the
// panel is wired (docs/protocols.md, "Slant lines"). A pattern has no lock of its own: its owner makes sure
// that only one thread uses it at a time. PaintSlantSetBuffer may be called by any thread.
#pragma once

#include "panelfb/panel-fb.h"

#include <cstddef>
#include <cstdlib>
#include <memory>

class SlantPattern
{
public:
    // Releases what an earlier call opened, darkens "/dev/fb0" to "/dev/fb2" and prepares the lines with
    // phase 0. False if "/dev/fb0" cannot be opened or memory is short (logged); the pattern then holds
    // nothing.
    bool Init();
    void SwitchOn(bool on) { on_ = on; }
    bool IsOn() const { return on_; }
    void Paint();  // draws one phase and advances; does nothing while the pattern is off or not prepared
    void Finish(); // darkens "/dev/fb0" and releases it

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

// Sets one pixel of a pattern buffer that belongs to `fb`: the four bytes blue, green, red, 255 at x times
// the bytes of a pixel in row y; a row is twice the stride long. A pixel outside width and height, or past
// the buffer's end, is not set.
void PaintSlantSetBuffer(PanelFB *fb, char *buf, int x, int y, unsigned char red, unsigned char green,
                         unsigned char blue);
