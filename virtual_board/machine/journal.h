// SPDX-License-Identifier: MIT
// virtual_board/machine/journal.h: what the recorder and the stand-ins inside the board have written down.
#pragma once

#include <string>
#include <vector>

namespace board
{

struct JournalEntry {
    bool standIn;
    std::vector<std::string> words; // the command line alone, or the stand-in's name and arguments
};

// Reads a journal piece by piece. Not thread-safe; the caller locks.
class Journal
{
public:
    explicit Journal(std::string path) : path_(std::move(path)) {}
    void Poll(); // takes what is new
    const std::vector<JournalEntry> &Entries() const { return entries_; }
    void Forget() { entries_.clear(); }

private:
    std::string path_;
    std::size_t read_ = 0;
    std::vector<JournalEntry> entries_;
};

} // namespace board
