// SPDX-License-Identifier: MIT
// src/base/threads.h: threads of the daemon never run a signal handler.
#pragma once

#include <pthread.h>

#include <csignal>

// Blocks every signal in the calling thread for as long as it lives. A thread started meanwhile inherits the
// mask, so that signals go to the main thread alone. Put one around each thread start.
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
