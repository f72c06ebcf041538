// SPDX-License-Identifier: MIT
// virtual_board/board/board_record.h: what the daemon has written, and what it has given to the shell. Every
// function may be called from any thread; the oldest entry comes first, since the start or the last Forget.
#pragma once

#include "common/unique_fd.h"
#include "machine/journal.h"
#include "machine/watcher.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace board
{

class BoardRecord
{
public:
    BoardRecord(Watcher &watcher, const std::string &journal) : watcher_(watcher), journal_(journal) {}

    std::vector<std::string> Log() const; // lines of the daemon's standard output and error, as they came
    std::string LogText() const;          // the same with an unfinished last line
    // At least `count` lines that contain `text`.
    bool WaitForLog(const std::string &text, std::size_t count = 1, Milliseconds limit = kDefaultLimit) const;
    std::string SanitizerReport() const; // what a sanitizer in the daemon has reported; usually empty

    std::vector<std::string> Commands() const; // command lines given to "/bin/sh -c"
    // At least `count` command lines that contain `text`.
    bool WaitForCommand(const std::string &text, std::size_t count = 1,
                        Milliseconds limit = kDefaultLimit) const;
    std::vector<std::vector<std::string>> StandInCalls() const; // name and arguments

    void Forget();

    // --- for the board itself ---
    ledboard::UniqueFd OpenLog(); // for the daemon's standard output and error
    bool LogIsRead() const;       // nothing more waits in what OpenLog gave away
    void Note(const std::string &line);

private:
    void Receive(int fd);
    std::vector<JournalEntry> Entries(bool standIns) const;

    Watcher &watcher_;
    mutable std::mutex lock_; // of everything below
    std::map<int, ledboard::UniqueFd> logPipes_;
    std::string log_;
    mutable Journal journal_;
};

} // namespace board
