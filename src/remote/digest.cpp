// SPDX-License-Identifier: MIT
#include "remote/digest.h"

#include "base/diag.h"
#include "base/threads.h"
#include "common/unique_fd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <system_error>
#include <thread>

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";

} // namespace

struct DigestWorker::Job {
    std::string path;
    ledboard::UniqueFd event;
    std::atomic<bool> abandoned = false;
    std::optional<KMD5::Digest> digest; // the thread's until the event is readable

    void Run();
};

void DigestWorker::Job::Run()
{
    digest = DigestOfFile(path, [this] { return abandoned.load(); });
    const std::uint64_t one = 1;
    if (write(event.Get(), &one, sizeof one) != sizeof one)
        DiagErrno(kUnit, "GetFileMD5", __LINE__, "digest event: ");
}

bool DigestWorker::Start(const std::string &path)
{
    const auto job = std::make_shared<Job>();
    job->path = path;
    job->event.Reset(eventfd(0, EFD_CLOEXEC));
    if (!job->event.Valid())
        return false;
    const SignalsBlocked blocked;
    try {
        std::thread([job] { job->Run(); }).detach();
    } catch (const std::system_error &) {
        return false;
    }
    job_ = job;
    return true;
}

int DigestWorker::Event() const
{
    return job_->event.Get();
}

bool DigestWorker::Take(std::optional<KMD5::Digest> *digest)
{
    std::uint64_t count;
    if (read(job_->event.Get(), &count, sizeof count) != sizeof count)
        return false;
    *digest = job_->digest;
    job_ = nullptr;
    return true;
}

void DigestWorker::Abandon()
{
    if (job_ != nullptr)
        job_->abandoned = true;
    job_ = nullptr;
}
