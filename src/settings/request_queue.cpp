// SPDX-License-Identifier: MIT
#include "settings/request_queue.h"

#include "base/diag.h"
#include "base/threads.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/request_queue.cpp";

} // namespace

struct RequestQueue::State {
    struct Request {
        std::uint32_t code;
        std::function<void()> act;
    };

    [[noreturn]] void Work()
    {
        for (;;) {
            std::unique_lock lock(mutex);
            added.wait(lock, [this] { return !waiting.empty(); });
            const Request request = std::move(waiting.front());
            waiting.pop_front();
            lock.unlock();
            request.act();
        }
    }

    std::mutex mutex;
    std::condition_variable added;
    std::deque<Request> waiting;
};

RequestQueue::RequestQueue() : state_(new State) {}

void RequestQueue::Put(std::uint32_t code, std::function<void()> request)
{
    {
        const std::lock_guard lock(state_->mutex);
        std::deque<State::Request> &waiting = state_->waiting;
        if (waiting.size() >= kMaxWaiting) {
            const auto replaced = std::ranges::find(waiting, code, &State::Request::code);
            if (replaced != waiting.end())
                waiting.erase(replaced);
        }
        waiting.push_back({code, std::move(request)});
    }
    if (!started_)
        started_ = StartThread(); // if that fails the request waits for the next one
    state_->added.notify_one();
}

bool RequestQueue::StartThread()
{
    const SignalsBlocked blocked;
    try {
        std::thread(&State::Work, state_).detach();
        return true;
    } catch (const std::system_error &error) {
        errno = error.code().value();
        DiagErrno(kUnit, __func__, __LINE__, "request thread: ");
        return false;
    }
}
