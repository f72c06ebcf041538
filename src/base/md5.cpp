// SPDX-License-Identifier: MIT
#include "base/md5.h"

#include "base/files.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <utility>

namespace
{

constexpr std::size_t kBlockSize = 64;
constexpr std::size_t kChunkSize = 1024; // bytes of a file that are read at a time

// RFC 1321, 3.4: the integer parts of 4294967296 * abs(sin(i + 1)), and the rotations of each round.
constexpr std::uint32_t kSines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Which word of the block a step uses.
constexpr std::size_t WordOfStep(std::size_t step)
{
    switch (step / 16) {
    case 0:
        return step;
    case 1:
        return (5 * step + 1) % 16;
    case 2:
        return (3 * step + 5) % 16;
    default:
        return 7 * step % 16;
    }
}

// One of the 64 steps. `b` is the result of the step before: all that does not need it is added first, so
// that the processor can do it while that step is still under way.
template <std::size_t kStep> inline void Step(std::uint32_t (&s)[4], const std::uint32_t (&words)[16])
{
    std::uint32_t &a = s[(4 - kStep % 4) % 4];
    const std::uint32_t b = s[(5 - kStep % 4) % 4];
    const std::uint32_t c = s[(6 - kStep % 4) % 4];
    const std::uint32_t d = s[(7 - kStep % 4) % 4];
    a += words[WordOfStep(kStep)] + kSines[kStep];
    if constexpr (kStep / 16 == 0) {
        a += d ^ (b & (c ^ d));
    } else if constexpr (kStep / 16 == 1) {
        a += c & ~d; // has no bit in common with b & d: two sums replace the "or", and this one need not wait
        a += b & d;
    } else if constexpr (kStep / 16 == 2) {
        a += b ^ (c ^ d);
    } else {
        a += c ^ (b | ~d);
    }
    a = std::rotl(a, kShifts[kStep / 16][kStep % 4]) + b;
}

template <std::size_t... kSteps>
inline void AllSteps(std::uint32_t (&s)[4], const std::uint32_t (&words)[16], std::index_sequence<kSteps...>)
{
    (Step<kSteps>(s, words), ...);
}

} // namespace

void KMD5::Initialise()
{
    state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    count = {};
}

void KMD5::Update(const void *input, std::size_t length)
{
    const auto *bytes = static_cast<const unsigned char *>(input);
    const std::size_t held = count[0] / 8 % kBlockSize;
    const std::uint64_t bits = (std::uint64_t{count[1]} << 32 | count[0]) + std::uint64_t{length} * 8;
    count = {static_cast<std::uint32_t>(bits), static_cast<std::uint32_t>(bits >> 32)};
    if (held != 0) {
        const std::size_t taken = std::min(kBlockSize - held, length);
        std::memcpy(buffer.data() + held, bytes, taken);
        if (held + taken < kBlockSize)
            return;
        MD5Transform(state.data(), buffer.data());
        bytes += taken;
        length -= taken;
    }
    for (; length >= kBlockSize; bytes += kBlockSize, length -= kBlockSize)
        MD5Transform(state.data(), bytes);
    if (length != 0)
        std::memcpy(buffer.data(), bytes, length);
}

KMD5::Digest KMD5::Final()
{
    constexpr std::size_t kLengthAt = 56; // the last eight bytes of the last block are the length (3.2)
    constexpr unsigned char kPadding[kBlockSize] = {0x80};
    const std::array<std::uint32_t, 2> bits = count; // of the message alone: Update counts the padding too
    const std::size_t held = bits[0] / 8 % kBlockSize;
    Update(kPadding, held < kLengthAt ? kLengthAt - held : kBlockSize + kLengthAt - held);
    Update(bits.data(), sizeof bits);
    Digest digest;
    std::memcpy(digest.data(), state.data(), digest.size());
    state = {};
    count = {};
    buffer = {};
    return digest;
}

void KMD5::MD5Transform(std::uint32_t *state, const unsigned char *block)
{
    static_assert(std::endian::native == std::endian::little);
    std::uint32_t words[16];
    std::memcpy(words, block, sizeof words);
    std::uint32_t s[4] = {state[0], state[1], state[2], state[3]};
    AllSteps(s, words, std::make_index_sequence<64>());
    for (std::size_t index = 0; index < 4; ++index)
        state[index] += s[index];
}

std::string DigestText(const KMD5::Digest &digest)
{
    std::string text;
    for (const unsigned char byte : digest) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(byte));
        text += digits;
    }
    return text;
}

std::optional<KMD5::Digest> DigestOfFile(const std::string &path, const std::function<bool()> &stopped)
{
    const FilePointer file = OpenFile(path, "rb");
    if (!file) {
        std::printf("%s can't be opened\n", path.c_str());
        return std::nullopt;
    }
    KMD5 digest;
    std::array<unsigned char, kChunkSize> chunk;
    while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), file.get())) {
        if (stopped())
            return std::nullopt;
        digest.Update(chunk.data(), count);
    }
    return digest.Final();
}
