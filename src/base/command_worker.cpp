// SPDX-License-Identifier: MIT
#include "base/command_worker.h"

#include "base/diag.h"
#include "base/threads.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

namespace
{

constexpr char kUnit[] = "src/command_worker.cpp";

// Clear repeats the kill at this interval: a command that has left the queue may have no process yet.
constexpr std::chrono::milliseconds kKillPause(20);

} // namespace

CommandWorker::~CommandWorker()
{
    Clear();
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void CommandWorker::Put(const std::string &command)
{
    {
        const std::lock_guard lock(mutex_);
        if (std::find(waiting_.begin(), waiting_.end(), command) == waiting_.end())
            waiting_.push_back(command);
    }
    if (!thread_.joinable())
        StartThread();
    changed_.notify_all();
}

void CommandWorker::Clear()
{
    std::unique_lock lock(mutex_);
    waiting_.clear();
    while (running_) {
        shell_.End();
        changed_.wait_for(lock, kKillPause);
    }
}

void CommandWorker::StartThread()
{
    const SignalsBlocked blocked;
    try {
        thread_ = std::thread(&CommandWorker::Work, this);
    } catch (const std::system_error &error) {
        // The command stays in the queue; the next Put tries again.
        errno = error.code().value();
        DiagErrno(kUnit, __func__, __LINE__, "command thread: ");
    }
}

void CommandWorker::Work()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stop_ || !waiting_.empty(); });
        if (stop_)
            return;
        const std::string command = std::move(waiting_.front());
        waiting_.pop_front();
        running_ = true;
        lock.unlock(); // Put does not wait for the command, and Clear can kill it
        shell_.Run(command);
        lock.lock();
        running_ = false;
        changed_.notify_all();
    }
}
