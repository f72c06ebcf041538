// SPDX-License-Identifier: MIT
#include "sessions/firmware_archive.h"

#include "common/pc/verb_error.h"
#include "common/text_field.h"

#include <zlib.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>

namespace ledboard
{

namespace
{

constexpr std::size_t kBlockSize = 512;
constexpr std::size_t kMaxArchive = (std::size_t{1} << 31) - 1; // boards count in signed 32 bits

VerbError Bad(const std::string &path, const std::string &what)
{
    return {ExitStatus::kFailed, "'" + path + "' " + what};
}

std::string ReadWhole(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw SystemError("cannot read '" + path + "'", errno);
    std::string content{std::istreambuf_iterator<char>(file), {}};
    if (file.bad() || content.size() > kMaxArchive)
        throw Bad(path, "cannot be read or is too large");
    return content;
}

// Header of a tar entry (POSIX 1003.1, "ustar"); older archives have the same first half.
struct TarHeader {
    char name[100];
    char modeOwnerGroup[24];
    char size[12]; // octal digits
    char time[12];
    char checksum[8]; // octal digits; counted as blanks in the sum
    char type;
    char rest[355];
};
static_assert(sizeof(TarHeader) == kBlockSize);

std::uint64_t Octal(const char *digits, std::size_t size)
{
    return std::strtoull(std::string(digits, size).c_str(), nullptr, 8);
}

bool ChecksumFits(const TarHeader &header)
{
    unsigned sum = 0;
    TarHeader copy = header;
    std::memset(copy.checksum, ' ', sizeof copy.checksum);
    for (std::size_t index = 0; index < sizeof copy; ++index)
        sum += reinterpret_cast<const unsigned char *>(&copy)[index];
    return sum == Octal(header.checksum, sizeof header.checksum);
}

// Walks the entries of a tar that arrives in pieces.
class TarReader
{
public:
    explicit TarReader(const std::string &path) : path_(path) {}

    void Take(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const std::uint64_t wanted = skip_ > 0 ? skip_ : kBlockSize - held_.size();
            const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(wanted, bytes.size()));
            if (skip_ > 0)
                skip_ -= count;
            else
                held_ += bytes.substr(0, count);
            bytes.remove_prefix(count);
            if (held_.size() == kBlockSize)
                TakeHeader();
        }
    }
    bool HasScript() const { return hasScript_; }

private:
    void TakeHeader()
    {
        TarHeader header;
        std::memcpy(&header, held_.data(), sizeof header);
        held_.clear();
        if (header.name[0] == '\0')
            return; // one of the empty blocks at the end
        if (!ChecksumFits(header))
            throw Bad(path_, "is not a tar archive");
        const std::string_view name = FieldText(header.name);
        const std::uint64_t size = Octal(header.size, sizeof header.size);
        const bool isFile = header.type == '0' || header.type == '\0';
        hasScript_ = hasScript_ || (isFile && size > 0 && (name == "update.sh" || name == "./update.sh"));
        skip_ = (size + kBlockSize - 1) / kBlockSize * kBlockSize;
    }

    const std::string &path_;
    std::string held_;
    std::uint64_t skip_ = 0;
    bool hasScript_ = false;
};

class Inflater
{
public:
    explicit Inflater(const std::string &input)
    {
        constexpr int kGzipOnly = 16 + MAX_WBITS;
        inflateInit2(&stream_, kGzipOnly);
        stream_.next_in = const_cast<Bytef *>(reinterpret_cast<const Bytef *>(input.data()));
        stream_.avail_in = static_cast<uInt>(input.size());
    }
    ~Inflater() { inflateEnd(&stream_); }
    Inflater(const Inflater &) = delete;
    Inflater &operator=(const Inflater &) = delete;

    // The next piece; empty if nothing is left. `*isWhole`: the end was reached and the checksums are right.
    std::string_view Next(bool *isWhole)
    {
        stream_.next_out = reinterpret_cast<Bytef *>(room_.data());
        stream_.avail_out = static_cast<uInt>(room_.size());
        *isWhole = inflate(&stream_, Z_NO_FLUSH) == Z_STREAM_END;
        return {room_.data(), room_.size() - stream_.avail_out};
    }

private:
    z_stream stream_{};
    std::array<char, 65536> room_;
};

} // namespace

std::string ReadFirmwareArchive(const std::string &path)
{
    std::string content = ReadWhole(path);
    if (content.compare(0, 2, "\x1F\x8B") != 0)
        throw Bad(path, "is not a gzip-compressed archive");
    Inflater inflater(content);
    TarReader tar(path);
    bool isWhole = false;
    while (!isWhole) {
        const std::string_view piece = inflater.Next(&isWhole);
        if (piece.empty() && !isWhole)
            throw Bad(path, "is damaged or cut off");
        tar.Take(piece);
    }
    if (!tar.HasScript())
        throw Bad(path, "has no file \"update.sh\" at its top");
    return content;
}

} // namespace ledboard
