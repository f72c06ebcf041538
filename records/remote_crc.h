// SPDX-License-Identifier: MIT
// records/remote_crc.h: the CRC of a close reply: CRC-32/MPEG-2, most significant bit first, polynomial
// 0x04C11DB7, neither reflected nor inverted at the end. Check value of "123456789": 0x0376E6E7.
#pragma once

#include "records/wire_types.h"

#include <array>

namespace wire
{

constexpr std::uint32_t kCrcStart = 0xFFFFFFFF;

constexpr std::array<std::uint32_t, 256> MakeCrcTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index << 24;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x80000000) != 0 ? value << 1 ^ 0x04C11DB7 : value << 1;
        table[index] = value;
    }
    return table;
}

// The CRC after `bytes`, from the CRC before them.
inline std::uint32_t AdvanceCrc(std::uint32_t crc, Bytes bytes)
{
    static constexpr std::array<std::uint32_t, 256> kTable = MakeCrcTable();
    for (const std::byte byte : bytes)
        crc = crc << 8 ^ kTable[crc >> 24 ^ std::to_integer<std::uint32_t>(byte)];
    return crc;
}

} // namespace wire
