// SPDX-License-Identifier: MIT
// src/remote/digest.h: computes the digest of one large file on a thread of its own, so that the work loop
// serves everybody else meanwhile. Main thread only.
#pragma once

#include "base/md5.h"

#include <memory>
#include <optional>
#include <string>

class DigestWorker
{
public:
    DigestWorker() = default;
    ~DigestWorker() { Abandon(); }
    DigestWorker(const DigestWorker &) = delete;
    DigestWorker &operator=(const DigestWorker &) = delete;

    bool Start(const std::string &path); // while no digest is pending; false if no thread could be started
    bool Pending() const { return job_ != nullptr; }
    int Event() const; // readable when the pending digest is there

    // Takes the result when the event is readable: nothing in `digest` if the file cannot be opened. False if
    // the digest is not there yet and stays pending.
    bool Take(std::optional<KMD5::Digest> *digest);

    void Abandon(); // nobody waits for the result any more; the thread ends by itself

private:
    struct Job;
    std::shared_ptr<Job> job_; // shared with the thread, which may outlive this object
};
