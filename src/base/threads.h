// SPDX-License-Identifier: MIT
// src/base/threads.h: starts threads that run no signal handler.
#pragma once

#include <pthread.h>

#include <csignal>

// Blocks every signal in the calling thread while the object exists. A thread that is started meanwhile
// inherits the mask, so that only the main thread gets signals. Every start of a thread is inside the scope
// of one.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;
    SignalsBlocked &operator=(const SignalsBlocked &) = delete;

private:
    sigset_t before_;
};
