// SPDX-License-Identifier: MIT
// src/base/crc32.h: reflected CRC-32 of IEEE 802.3, for tools that are built on the daemon's library. Any
// thread.
#pragma once

#include <cstdint>

// The CRC of the rest of an open file, with the initial value and the final complement of the standard, and
// the number of bytes read. Also carries on the process's running CRC over these bytes, complemented before
// and after. 0 done, 1 a read failed: both results and the running CRC are untouched.
int crc32(int fd, std::uint32_t *crc, std::uint32_t *length);

// Carries on the process's running CRC over `len` bytes, without initial value and complement, and stores it
// in `crc`. Always 1; does nothing for 0 bytes.
int crc32(const void *buf, std::uint32_t len, std::uint32_t *crc);
