// SPDX-License-Identifier: MIT
#include "settings/setting_answer.h"

#include "settings/setting_lock.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

namespace
{

using Clock = std::chrono::steady_clock;

class Sender
{
public:
    Sender(int fd, SendPatience patience)
        : fd_(fd), patience_(patience), deadline_(Clock::now() + patience.limit)
    {
    }

    // True when all bytes went out.
    bool Send(wire::Bytes bytes)
    {
        while (!bytes.empty()) {
            const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent > 0) {
                bytes = bytes.subspan(static_cast<std::size_t>(sent));
                if (patience_.renewed)
                    deadline_ = Clock::now() + patience_.limit;
            } else if (errno != EINTR && (errno != EAGAIN || !WaitForRoom())) {
                return false;
            }
        }
        return true;
    }

private:
    bool WaitForRoom() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
        if (left.count() <= 0)
            return false;
        pollfd wait{.fd = fd_, .events = POLLOUT, .revents = 0};
        const int ready = poll(&wait, 1, static_cast<int>(left.count()));
        return ready == 1 || (ready == -1 && errno == EINTR);
    }

    int fd_;
    SendPatience patience_;
    Clock::time_point deadline_;
};

wire::Bytes BytesOfText(const std::string &text)
{
    return wire::BytesAt(text.data(), text.size());
}

// False if a block was not sent whole.
bool SendFile(const SettingAnswer &answer, Sender *sender, std::size_t *fileBytes)
{
    std::array<std::byte, kMaxAnswerBlock> block;
    for (;;) {
        std::size_t count;
        {
            const SettingLock lock; // another client may be changing the file
            count = std::fread(block.data(), 1, std::min(answer.blockSize, block.size()), answer.file.get());
        }
        if (count == 0)
            return true;
        if (!sender->Send(wire::BytesAt(block.data(), count))) {
            if (answer.shortLog != nullptr)
                std::printf("%s\n", answer.shortLog);
            return false;
        }
        *fileBytes += count;
        if (answer.blockLog != nullptr)
            std::printf("%s%d.\n", answer.blockLog, static_cast<int>(count));
    }
}

bool SendAll(const SettingAnswer &answer, int fd, SendPatience patience, std::size_t *fileBytes)
{
    Sender sender(fd, patience);
    return sender.Send(BytesOfText(answer.reply)) && (!answer.file || SendFile(answer, &sender, fileBytes)) &&
           sender.Send(BytesOfText(answer.tail));
}

} // namespace

bool Deliver(SettingAnswer *answer, int fd, SendPatience patience)
{
    if (answer->before)
        answer->before();
    std::size_t fileBytes = 0;
    const bool delivered = SendAll(*answer, fd, patience, &fileBytes);
    // What `before` did (set the clock, for example) needs its follow-up even if the client did not take the
    // answer.
    if (answer->after)
        answer->after(fileBytes);
    if (answer->shutdown)
        shutdown(fd, SHUT_RDWR);
    return delivered;
}
