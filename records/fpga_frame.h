// SPDX-License-Identifier: MIT
// records/fpga_frame.h: the 7-byte frame on the serial line to the FPGA (docs/protocols.md, "FPGA").
#pragma once

#include "records/wire_types.h"

namespace wire
{

constexpr std::uint8_t kFpgaMark = 0xA5;

struct FpgaFrame {
    U8 head; // kFpgaMark
    U8 command;
    U32 value;
    U8 tail; // kFpgaMark
};
static_assert(sizeof(FpgaFrame) == 7);
static_assert(offsetof(FpgaFrame, head) == 0);
static_assert(offsetof(FpgaFrame, command) == 1);
static_assert(offsetof(FpgaFrame, value) == 2);
static_assert(offsetof(FpgaFrame, tail) == 6);

} // namespace wire
