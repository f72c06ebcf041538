// SPDX-License-Identifier: MIT
// src/base/md5.h: MD5 digests (RFC 1321). One object per digest; an object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

class KMD5
{
public:
    using Digest = std::array<unsigned char, 16>;

    KMD5() { Initialise(); }

    void Initialise();
    void Update(const void *input, std::size_t length);
    Digest Final(); // erases the object's state: call Initialise before using it again

    // Mixes one block of 64 bytes, at any address, into the four words of the state (RFC 1321, 3.4).
    static void MD5Transform(std::uint32_t *state, const unsigned char *block);

private:
    std::array<std::uint32_t, 4> state;
    std::array<std::uint32_t, 2> count; // bits hashed, low word first
    std::array<unsigned char, 64> buffer;
};

std::string DigestText(const KMD5::Digest &digest); // 32 lower-case hexadecimal digits

// The digest of a file's content; nothing if the file cannot be opened (logged) or if `stopped`, which is
// called for each KiB, returns true. Reads the whole file on the calling thread.
std::optional<KMD5::Digest> DigestOfFile(const std::string &path, const std::function<bool()> &stopped);
