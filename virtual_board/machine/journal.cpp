// SPDX-License-Identifier: MIT
#include "machine/journal.h"

#include "inside/channel_format.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

namespace board
{

void Journal::Poll()
{
    std::ifstream file(path_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(read_));
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::size_t at = 0;
    std::uint32_t length = 0;
    while (bytes.size() - at >= sizeof length) {
        std::memcpy(&length, bytes.data() + at, sizeof length);
        if (length == 0 || bytes.size() - at - sizeof length < length)
            break;
        const char kind = bytes[at + sizeof length];
        const std::string text = bytes.substr(at + sizeof length + 1, length - 1);
        JournalEntry entry{kind == inside::kJournalStandIn, {}};
        for (std::size_t begin = 0; begin <= text.size();) {
            const std::size_t end = std::min(text.find('\0', begin), text.size());
            entry.words.push_back(text.substr(begin, end - begin));
            begin = end + 1;
        }
        entries_.push_back(std::move(entry));
        at += sizeof length + length;
    }
    read_ += at;
}

} // namespace board
