// SPDX-License-Identifier: MIT
// src/base/command_worker.h: runs slow commands one after the other, off the caller's thread.
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
    ~CommandWorker(); // as Clear; the thread has ended when it returns
    CommandWorker(const CommandWorker &) = delete;
    CommandWorker &operator=(const CommandWorker &) = delete;

    // Appends a command to the line and returns at once. One that already waits there is not put in twice:
    // what it does will be done later than now anyhow. One caller at a time.
    void Put(const std::string &command);

    // Empties the line, kills the command that runs and returns when nothing runs any more.
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
