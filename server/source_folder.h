// SPDX-License-Identifier: MIT
// server/source_folder.h: the program folder that is pushed: its files, their digests and their bytes.
// Digests are computed once, off the event loop, however many boards ask.
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
    std::string digest; // the part of the MD5 text that boards tell: 16 characters
    std::uint32_t crc = 0;
};

// An open file of the folder.
class SourceReader
{
public:
    explicit SourceReader(const SourceFile &file); // throws std::system_error

    // As many bytes from `offset` as are there, at most `size`; throws std::system_error.
    std::string Read(std::uint64_t offset, std::size_t size) const;

private:
    ledboard::UniqueFd fd_;
};

class SourceFolder
{
public:
    // Lists the regular files below `folder`. Throws std::runtime_error when there is none or a name that
    // boards cannot take.
    explicit SourceFolder(const std::string &folder);

    const std::map<std::string, SourceFile> &Files() const { return files_; } // by their names on the board
    std::uint64_t TotalSize() const;

    // Facts of the first `length` bytes of a file. Throws std::system_error.
    asio::awaitable<FileFacts> Facts(std::string name, std::uint64_t length);

private:
    FileFacts Compute(const std::string &name, std::uint64_t length);

    std::map<std::string, SourceFile> files_;
    asio::thread_pool worker_{1};
    std::map<std::pair<std::string, std::uint64_t>, FileFacts> known_; // the worker's own
};

} // namespace server
