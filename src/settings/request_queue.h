// SPDX-License-Identifier: MIT
// src/settings/request_queue.h: carries out requests one after another, in order, on a thread of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

// Its thread starts with the first request and runs until the process ends; the requests outlive the object.
class RequestQueue
{
public:
    RequestQueue();

    // Adds a request and returns at once. When kMaxWaiting requests wait, the oldest of the same code makes
    // room: requests of one code replace each other, so that only the last one matters. One caller at a time.
    void Put(std::uint32_t code, std::function<void()> request);

    static constexpr std::size_t kMaxWaiting = 256;

private:
    struct State; // shared with the thread
    bool StartThread();

    State *state_; // never released
    bool started_ = false;
};
