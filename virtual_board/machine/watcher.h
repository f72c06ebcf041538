// SPDX-License-Identifier: MIT
// virtual_board/machine/watcher.h: one background thread that waits on descriptors and tells whoever waits
// that something came.
#pragma once

#include "common/unique_fd.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace board
{

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kDefaultLimit{20000}; // of the WaitFor family

// Handlers run on the watcher's thread, without any lock of the watcher; a handler guards its own data with
// Lock(). Any thread may add and remove. A handler may be running once more while Remove is called from
// another thread; Remove waits until it is not.
class Watcher
{
public:
    Watcher();
    ~Watcher();
    Watcher(const Watcher &) = delete;
    Watcher &operator=(const Watcher &) = delete;

    void Add(int fd, std::function<void()> onReadable);
    void Remove(int fd);
    // Called about fifty times a second, on the watcher's thread.
    void AddTick(std::function<void()> tick);

    // Ends the thread; no handler and no tick runs after it.
    void Stop();

    // Guards what handlers collect.
    std::mutex &Lock() { return dataLock_; }

    // Wakes every WaitFor, so that it looks again.
    void Notify();

    // Looks at once, after every event and at least every 20 ms; false when `limit` ran out first. The
    // predicate is called on the calling thread, with no lock held.
    bool WaitFor(const std::function<bool()> &predicate, Milliseconds limit);

private:
    void Run();

    std::mutex lock_; // of the members below
    std::mutex dataLock_;
    std::condition_variable changed_;
    std::uint64_t events_ = 0;
    std::uint64_t rounds_ = 0; // of the thread's loop
    bool running_ = true;
    std::map<int, std::function<void()>> handlers_;
    std::vector<std::function<void()>> ticks_;
    ledboard::UniqueFd wake_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace board
