// SPDX-License-Identifier: MIT
// tests/unit/test_files.h: files of the private root, at the board's real paths.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

inline void WriteTestFile(const std::string &path, const std::string &content)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

inline std::optional<std::string> ReadTestFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return std::nullopt;
    return std::string{std::istreambuf_iterator<char>(file), {}};
}

inline void RemoveTestFile(const std::string &path)
{
    std::filesystem::remove_all(path);
}

// The file with `content`, or missing without one.
inline void SetTestFile(const std::string &path, const std::optional<std::string> &content)
{
    if (content)
        WriteTestFile(path, *content);
    else
        RemoveTestFile(path);
}
