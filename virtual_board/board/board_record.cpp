// SPDX-License-Identifier: MIT
#include "board/board_record.h"

#include "machine/errors.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace board
{

using ledboard::UniqueFd;

namespace
{

constexpr int kLogPipeSize = 1 << 20; // the daemon never waits for its reader

std::vector<std::string> SplitLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::size_t CountContaining(const std::vector<std::string> &lines, const std::string &text)
{
    const auto count = std::ranges::count_if(lines, [&](const std::string &line) {
        return line.find(text) != std::string::npos;
    });
    return static_cast<std::size_t>(count);
}

} // namespace

UniqueFd BoardRecord::OpenLog()
{
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "pipe");
    const int reader = ends[0];
    fcntl(reader, F_SETPIPE_SZ, kLogPipeSize);
    fcntl(reader, F_SETFL, O_NONBLOCK);
    {
        const std::lock_guard guard(lock_);
        logPipes_[reader] = UniqueFd(reader);
    }
    watcher_.Add(reader, [this, reader] { Receive(reader); });
    return UniqueFd(ends[1]);
}

void BoardRecord::Receive(int fd)
{
    std::array<char, 65536> bytes;
    const ssize_t got = read(fd, bytes.data(), bytes.size());
    if (got < 0)
        return;
    const std::lock_guard guard(lock_);
    if (got > 0) {
        log_.append(bytes.data(), static_cast<std::size_t>(got));
        return;
    }
    watcher_.Remove(fd);
    logPipes_.erase(fd);
}

bool BoardRecord::LogIsRead() const
{
    const std::lock_guard guard(lock_);
    return std::ranges::all_of(logPipes_, [](const auto &pipe) {
        int waiting = 0;
        return ioctl(pipe.first, FIONREAD, &waiting) != 0 || waiting == 0;
    });
}

void BoardRecord::Note(const std::string &line)
{
    const std::lock_guard guard(lock_);
    log_ += line + "\n";
}

std::vector<std::string> BoardRecord::Log() const
{
    return SplitLines(LogText());
}

std::string BoardRecord::LogText() const
{
    const std::lock_guard guard(lock_);
    return log_;
}

bool BoardRecord::WaitForLog(const std::string &text, std::size_t count, Milliseconds limit) const
{
    return watcher_.WaitFor([&] { return CountContaining(Log(), text) >= count; }, limit);
}

std::string BoardRecord::SanitizerReport() const
{
    const std::string log = LogText();
    for (const char *sign : {"Sanitizer: ", "runtime error: "}) {
        const std::size_t found = log.find(sign);
        if (found != std::string::npos)
            return log.substr(log.rfind('\n', found) + 1);
    }
    return {};
}

std::vector<JournalEntry> BoardRecord::Entries(bool standIns) const
{
    const std::lock_guard guard(lock_);
    journal_.Poll();
    std::vector<JournalEntry> entries;
    std::ranges::copy_if(journal_.Entries(), std::back_inserter(entries),
                         [standIns](const JournalEntry &entry) { return entry.standIn == standIns; });
    return entries;
}

std::vector<std::string> BoardRecord::Commands() const
{
    std::vector<std::string> commands;
    for (const JournalEntry &entry : Entries(false))
        commands.push_back(entry.words.front());
    return commands;
}

bool BoardRecord::WaitForCommand(const std::string &text, std::size_t count, Milliseconds limit) const
{
    return watcher_.WaitFor([&] { return CountContaining(Commands(), text) >= count; }, limit);
}

std::vector<std::vector<std::string>> BoardRecord::StandInCalls() const
{
    std::vector<std::vector<std::string>> calls;
    for (const JournalEntry &entry : Entries(true))
        calls.push_back(entry.words);
    return calls;
}

void BoardRecord::Forget()
{
    const std::lock_guard guard(lock_);
    journal_.Poll();
    journal_.Forget();
    log_.clear();
}

} // namespace board
