// SPDX-License-Identifier: MIT
// files.h — small files read and rewritten whole. Any thread. Names are bytes.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<std::FILE, CloseFile>;

// fopen with close-on-exec.
FilePointer OpenFile(const std::string &path, const char *mode);

// At most `limit` bytes from the start of the file; nothing when it cannot be opened.
std::optional<std::string> ReadFileStart(const std::string &path, std::size_t limit);

bool IsFolder(const std::string &path); // it can be opened as a folder

// Replaces the file by `content` so that a power cut leaves either the old or the new one: written to a
// neighbour, synced, renamed. False with errno when that failed; the old file is then untouched.
bool ReplaceFile(const std::string &path, const std::string &content);
