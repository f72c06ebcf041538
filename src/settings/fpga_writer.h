// SPDX-License-Identifier: MIT
// src/settings/fpga_writer.h: frames to the FPGA on the serial line (docs/protocols.md, "FPGA"). The setting
// service holds its lock in all of it.
#pragma once

#include "records/fpga_frame.h"
#include "settings/setting_lock.h"

class KSerial;

// Commands of a frame that are no parameter's id.
enum FpgaControl : std::uint8_t {
    kControlOpen = 1,       // value 0: a transfer of settings follows; it also ends the smart setting
    kControlParameters = 2, // value 0: the parameters follow, 1: they end
};

wire::FpgaFrame MakeFpgaFrame(std::uint32_t command, std::uint32_t value); // the low 8 bits of `command`

// How a sent frame is printed: a label, and the printf format of each byte.
struct FrameTrace {
    const char *label;
    const char *byteFormat;
};

class FpgaWriter
{
public:
    FpgaWriter();

    // Opens the serial device and configures it: 115200 baud, 8 data bits, no parity, 1 stop bit. False if
    // that fails; only a device that cannot be opened is logged.
    bool Open(const SettingLock &lock, const char *device);

    // Writes one frame. 7 sent, anything else not sent. Of a line that is gone only the loss and the return
    // are logged, not every frame.
    int Send(const SettingLock &lock, const wire::FpgaFrame &frame);
    int Send(const SettingLock &lock, std::uint32_t command, std::uint32_t value);

    // The same, and prints the frame whether or not it was sent.
    int SendTraced(const SettingLock &lock, const wire::FpgaFrame &frame, FrameTrace trace);

private:
    KSerial *serial; // the one line, never destroyed
    bool lineWasLost_ = false;
};
