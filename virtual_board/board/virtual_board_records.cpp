// SPDX-License-Identifier: MIT
// What a board has seen, and waiting for it.
#include "board/virtual_board.h"
#include "machine/errors.h"

#include <sys/ioctl.h>

#include <algorithm>

namespace board
{

std::string VirtualBoard::ReadFile(const std::string &path) const
{
    auto content = root_.Read(path);
    if (!content)
        ThrowErrno("read " + path);
    return std::move(*content);
}

void VirtualBoard::WriteFile(const std::string &path, const std::string &content, unsigned mode)
{
    root_.Write(path, content, mode);
}

static std::vector<std::string> SplitLines(const std::string &text)
{
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

std::vector<std::string> VirtualBoard::Log() const
{
    return SplitLines(LogText());
}

std::string VirtualBoard::LogText() const
{
    const std::lock_guard guard(lock_);
    return log_;
}

std::vector<std::string> VirtualBoard::Commands() const
{
    const std::lock_guard guard(lock_);
    journal_.Poll();
    std::vector<std::string> commands;
    for (const JournalEntry &entry : journal_.Entries()) {
        if (!entry.standIn)
            commands.push_back(entry.words.front());
    }
    return commands;
}

std::vector<std::vector<std::string>> VirtualBoard::StandInCalls() const
{
    const std::lock_guard guard(lock_);
    journal_.Poll();
    std::vector<std::vector<std::string>> calls;
    for (const JournalEntry &entry : journal_.Entries()) {
        if (entry.standIn)
            calls.push_back(entry.words);
    }
    return calls;
}

std::string VirtualBoard::SanitizerReport() const
{
    const std::string log = LogText();
    for (const char *sign : {"Sanitizer: ", "runtime error: "}) {
        const std::size_t found = log.find(sign);
        if (found != std::string::npos)
            return log.substr(log.rfind('\n', found) + 1);
    }
    return {};
}

void VirtualBoard::Forget()
{
    fpga_.Forget();
    player_.Forget();
    modem_.Forget();
    supervisor_.Forget();
    const std::lock_guard guard(lock_);
    journal_.Poll();
    journal_.Forget();
    log_.clear();
}

bool VirtualBoard::WaitFor(const std::function<bool()> &predicate, Milliseconds limit) const
{
    return watcher_.WaitFor(predicate, limit);
}

static auto Containing(const std::string &text)
{
    return [&text](const std::string &line) { return line.find(text) != std::string::npos; };
}

bool VirtualBoard::WaitForLog(const std::string &text, std::size_t count, Milliseconds limit) const
{
    return WaitFor(
        [&] {
            const auto lines = Log();
            return static_cast<std::size_t>(std::ranges::count_if(lines, Containing(text))) >= count;
        },
        limit);
}

bool VirtualBoard::WaitForFrame(std::uint8_t command, std::uint32_t value, Milliseconds limit) const
{
    return WaitFor(
        [&] {
            return std::ranges::any_of(Frames(), [&](const Frame &frame) {
                return frame.command == command && frame.value == value;
            });
        },
        limit);
}

bool VirtualBoard::WaitForFrames(std::size_t count, Milliseconds limit) const
{
    return WaitFor([&] { return Frames().size() >= count; }, limit);
}

bool VirtualBoard::WaitForMessage(std::uint32_t code, std::size_t count, Milliseconds limit) const
{
    return WaitFor(
        [&] {
            const auto messages = PlayerMessages();
            return static_cast<std::size_t>(std::ranges::count(messages, code, &PlayerMessage::code)) >=
                   count;
        },
        limit);
}

bool VirtualBoard::WaitForCommand(const std::string &text, std::size_t count, Milliseconds limit) const
{
    return WaitFor(
        [&] {
            const auto commands = Commands();
            return static_cast<std::size_t>(std::ranges::count_if(commands, Containing(text))) >= count;
        },
        limit);
}

// The last words of the daemon count as part of its end: its log is read empty first.
bool VirtualBoard::WaitForExit(Milliseconds limit) const
{
    const auto daemon = Daemon();
    const auto logEmpty = [this] {
        const std::lock_guard guard(lock_);
        return std::ranges::all_of(logPipes_, [](const auto &pipe) {
            int waiting = 0;
            return ioctl(pipe.first, FIONREAD, &waiting) != 0 || waiting == 0;
        });
    };
    return daemon && WaitFor([&] { return daemon->Ended() && logEmpty(); }, limit);
}

} // namespace board
