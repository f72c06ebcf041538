// SPDX-License-Identifier: MIT
// server/source_folder.h: the program folder that is pushed: its files, their digests and their bytes. A
// digest is computed once for all boards, on a thread of its own.
#pragma once

#include "common/unique_fd.h"

#include <asio/awaitable.hpp>
#include <asio/thread_pool.hpp>

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace server
{

struct SourceFile {
    std::filesystem::path path;
    std::uint64_t size = 0;
};

struct FileFacts {
    std::string digest; // the first 16 characters of the MD5 text: boards report no more
    std::uint32_t crc = 0;
};

// An open file of the folder.
class SourceReader
{
public:
    explicit SourceReader(const SourceFile &file); // throws std::system_error

    // `size` bytes from `offset`, or fewer at the end of the file; throws std::system_error.
    std::string Read(std::uint64_t offset, std::size_t size) const;

private:
    ledboard::UniqueFd fd_;
};

class SourceFolder
{
public:
    // Lists the regular files below `folder`. Throws std::runtime_error if there is no file or if boards
    // cannot take a name.
    explicit SourceFolder(const std::string &folder);

    const std::map<std::string, SourceFile> &Files() const { return files_; } // by their names on the board
    std::uint64_t TotalSize() const;

    // Digest and CRC of the first `length` bytes of a file. Throws std::system_error.
    asio::awaitable<FileFacts> Facts(std::string name, std::uint64_t length);

private:
    FileFacts Compute(const std::string &name, std::uint64_t length);

    std::map<std::string, SourceFile> files_;
    asio::thread_pool worker_{1};
    std::map<std::pair<std::string, std::uint64_t>, FileFacts> known_; // used by the worker only
};

} // namespace server
