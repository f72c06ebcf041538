// SPDX-License-Identifier: MIT
// src/base/command_worker.h: runs slow commands one after another on a thread of its own, so that
// callers do not wait for them.
#pragma once

#include "base/shell.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

class CommandWorker
{
public:
    CommandWorker() = default;
    ~CommandWorker(); // as Clear; also ends the thread
    CommandWorker(const CommandWorker &) = delete;
    CommandWorker &operator=(const CommandWorker &) = delete;

    // Adds a command to the queue and returns at once. A command that already waits there is not added again:
    // it will run later than now anyway. One caller at a time.
    void Put(const std::string &command);

    // Empties the queue, kills the command that runs, children included, and returns when nothing runs. Any
    // thread.
    void Clear();

private:
    void StartThread();
    void Work();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> waiting_;
    bool running_ = false;
    bool stop_ = false;
    ShellGroup shell_;
    std::thread thread_;
};
