// SPDX-License-Identifier: MIT
// src/base/files.h: reads, replaces and syncs files. Any thread. Names are bytes without an encoding.
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

// At most `limit` bytes from the start of the file; nothing if it cannot be opened.
std::optional<std::string> ReadFileStart(const std::string &path, std::size_t limit);

bool IsFolder(const std::string &path); // true if it can be opened as a folder

// Makes the folder and its parents, mode 0777. Reports no failure: the caller notices it when it opens a file
// in the folder.
void MakeFolders(const std::string &path);

// Replaces a file so that a power cut leaves either the old or the new one: the new content is written to a
// neighbour file, which Commit syncs and renames. Without Commit the old file stays as it was.
class FileReplacement
{
public:
    explicit FileReplacement(std::string path);
    ~FileReplacement();
    FileReplacement(const FileReplacement &) = delete;
    FileReplacement &operator=(const FileReplacement &) = delete;

    std::FILE *Stream() const { return file_.get(); } // NULL with errno if it cannot be written
    // Call it once, with a stream. False with errno if any write failed: the old file is then untouched.
    bool Commit();

private:
    std::string path_;
    FilePointer file_;
};

bool SyncFile(const std::string &path); // true: the file and its name are on the disk; false with errno

// FileReplacement with this content. False with errno if it failed: the old file is then untouched.
bool ReplaceFile(const std::string &path, const std::string &content);
