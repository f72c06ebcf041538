// SPDX-License-Identifier: MIT
#include "base/crc32.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <mutex>

namespace
{

constexpr std::uint32_t kPolynomial = 0xEDB88320; // 0x04C11DB7 with its bits reversed

// What each value of a byte changes in the CRC: a byte then takes one step instead of eight.
constexpr std::array<std::uint32_t, 256> MakeTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? kPolynomial ^ (value >> 1) : value >> 1;
        table[index] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> kTable = MakeTable();

std::mutex s_runningMutex;
std::uint32_t s_runningCrc = 0;

std::uint32_t Continue(std::uint32_t crc, const std::uint8_t *bytes, std::size_t count)
{
    for (std::size_t index = 0; index < count; ++index)
        crc = kTable[(crc ^ bytes[index]) & 0xFF] ^ (crc >> 8);
    return crc;
}

} // namespace

int crc32(int fd, std::uint32_t *crc, std::uint32_t *length)
{
    std::array<std::uint8_t, 1024> block;
    std::uint32_t value = 0xFFFFFFFF;
    std::uint32_t total = 0;
    const std::lock_guard lock(s_runningMutex);
    std::uint32_t running = ~s_runningCrc;
    for (;;) {
        const ssize_t count = read(fd, block.data(), block.size());
        if (count < 0)
            return 1;
        if (count == 0)
            break;
        value = Continue(value, block.data(), static_cast<std::size_t>(count));
        running = Continue(running, block.data(), static_cast<std::size_t>(count));
        total += static_cast<std::uint32_t>(count);
    }
    s_runningCrc = ~running;
    *crc = ~value;
    *length = total;
    return 0;
}

int crc32(const void *buf, std::uint32_t len, std::uint32_t *crc)
{
    if (len == 0)
        return 1;
    const std::lock_guard lock(s_runningMutex);
    s_runningCrc = Continue(s_runningCrc, static_cast<const std::uint8_t *>(buf), len);
    *crc = s_runningCrc;
    return 1;
}
