// SPDX-License-Identifier: MIT
// src/base/crc32.h: reflected CRC-32 of IEEE 802.3, for tools that are built on the daemon's library. Any
// thread.
#pragma once

#include <cstdint>

// The rest of an open file, in blocks of 1024 bytes, initial value and complement as the standard has them.
// 0 with both results stored, 1 a read failed and they are untouched.
int crc32(int fd, std::uint32_t *crc, std::uint32_t *length);

// Carries the process's running CRC on over `len` bytes, without initial value and complement, and gives it
// out. 1 always; nothing is done for 0 bytes.
int crc32(const void *buf, std::uint32_t len, std::uint32_t *crc);
