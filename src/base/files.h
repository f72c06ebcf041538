// SPDX-License-Identifier: MIT
// src/base/files.h: small files read and rewritten whole. Any thread. Names are bytes.
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

// Makes the folder and its parents, mode 0777. One that cannot be made shows when a file is opened in it.
void MakeFolders(const std::string &path);

// A file that takes the place of another once it is whole: what is written goes to a neighbour, which Commit
// syncs and renames. Without Commit the old file stays as it was.
class FileReplacement
{
public:
    explicit FileReplacement(std::string path);
    ~FileReplacement();
    FileReplacement(const FileReplacement &) = delete;
    FileReplacement &operator=(const FileReplacement &) = delete;

    std::FILE *Stream() const { return file_.get(); } // NULL (errno) when it cannot be written
    bool Commit();                                    // false with errno when that failed

private:
    std::string path_;
    FilePointer file_;
};

bool SyncFile(const std::string &path); // the file and its name are on the disk; false with errno

// Replaces the file by `content` so that a power cut leaves either the old or the new one: written to a
// neighbour, synced, renamed. False with errno when that failed; the old file is then untouched.
bool ReplaceFile(const std::string &path, const std::string &content);
