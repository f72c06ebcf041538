// SPDX-License-Identifier: MIT
#include "machine/watcher.h"

#include <poll.h>
#include <sys/eventfd.h>

namespace board
{

namespace
{

constexpr int kTickMilliseconds = 20;

} // namespace

Watcher::Watcher() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    thread_ = std::thread([this] { Run(); });
}

Watcher::~Watcher()
{
    Stop();
}

void Watcher::Stop()
{
    {
        const std::lock_guard guard(lock_);
        stop_ = true;
    }
    eventfd_write(wake_.Get(), 1);
    if (thread_.joinable())
        thread_.join();
}

void Watcher::Add(int fd, std::function<void()> onReadable)
{
    {
        const std::lock_guard guard(lock_);
        handlers_[fd] = std::move(onReadable);
    }
    eventfd_write(wake_.Get(), 1);
}

void Watcher::Remove(int fd)
{
    std::unique_lock guard(lock_);
    handlers_.erase(fd);
    if (std::this_thread::get_id() == thread_.get_id())
        return;
    eventfd_write(wake_.Get(), 1);
    changed_.wait(guard, [this, round = rounds_] { return rounds_ != round || !running_; });
}

void Watcher::AddTick(std::function<void()> tick)
{
    const std::lock_guard guard(lock_);
    ticks_.push_back(std::move(tick));
}

void Watcher::Notify()
{
    {
        const std::lock_guard guard(lock_);
        ++events_;
    }
    changed_.notify_all();
}

bool Watcher::WaitFor(const std::function<bool()> &predicate, Milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        std::uint64_t seen = 0;
        {
            const std::lock_guard guard(lock_);
            seen = events_;
        }
        if (predicate())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        std::unique_lock guard(lock_);
        changed_.wait_for(guard, Milliseconds(20), [&] { return events_ != seen; });
    }
}

void Watcher::Run()
{
    for (;;) {
        std::vector<pollfd> watched;
        std::vector<std::function<void()>> ticks;
        {
            const std::lock_guard guard(lock_);
            ++rounds_;
            running_ = !stop_;
            changed_.notify_all();
            if (stop_)
                return;
            for (const auto &[fd, handler] : handlers_)
                watched.push_back({fd, POLLIN, 0});
            ticks = ticks_;
        }
        watched.push_back({wake_.Get(), POLLIN, 0});
        poll(watched.data(), watched.size(), kTickMilliseconds);
        eventfd_t drained = 0;
        eventfd_read(wake_.Get(), &drained);
        watched.pop_back();

        bool any = false;
        for (const pollfd &one : watched) {
            if (one.revents == 0)
                continue;
            std::function<void()> handler;
            {
                const std::lock_guard guard(lock_);
                const auto found = handlers_.find(one.fd);
                if (found != handlers_.end())
                    handler = found->second;
            }
            any = any || handler;
            if (handler)
                handler();
        }
        for (const auto &tick : ticks)
            tick();
        if (any)
            Notify();
    }
}

} // namespace board
