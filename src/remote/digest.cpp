// SPDX-License-Identifier: MIT
#include "remote/digest.h"

#include "base/diag.h"
#include "base/md5.h"
#include "base/sockets.h"
#include "base/threads.h"
#include "common/unique_fd.h"
#include "remote/client.h"
#include "remote/connection.h"
#include "remote/device_context.h"
#include "remote/received_file.h"

#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

namespace remote
{

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr off_t kLargeFile = 1 << 20; // bytes; a smaller one is read faster than anybody notices

struct DigestJob {
    std::string path;
    wire::RemoteNamePacket named; // the reply without its digest
    ledboard::UniqueFd event;     // readable when `digest` is there
    std::atomic<bool> abandoned = false;
    std::optional<KMD5::Digest> digest;
};

std::shared_ptr<DigestJob> s_job; // NULL when none is pending

off_t SizeOf(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : 0;
}

void Compute(DigestJob *job)
{
    job->digest = DigestOfFile(job->path, [job] { return job->abandoned.load(); });
}

// True when a worker computes the digest.
bool StartWorker(const std::shared_ptr<DigestJob> &job)
{
    job->event.Reset(eventfd(0, EFD_CLOEXEC));
    if (!job->event.Valid())
        return false;
    const SignalsBlocked blocked;
    try {
        std::thread([job] {
            Compute(job.get());
            const std::uint64_t one = 1;
            if (write(job->event.Get(), &one, sizeof one) != sizeof one)
                DiagErrno(kUnit, "GetFileMD5", __LINE__, "digest event: ");
        }).detach();
    } catch (const std::system_error &) {
        return false;
    }
    s_job = job;
    Connection().WatchInstead(job->event.Get());
    return true;
}

bool Answer(DeviceContext *context, const DigestJob &job)
{
    wire::RemoteMd5Reply reply{};
    reply.named = job.named;
    if (job.digest) {
        const std::string text = DigestText(*job.digest);
        std::printf("%s\n", text.c_str());
        // QUIRK half-digest: only the first 16 of the text's 32 characters go out; the whole digest would be
        // expected.
        std::memcpy(reply.digest, text.data(), sizeof reply.digest);
    }
    return SendReply(context, "GetFileMD5", wire::BytesOf(reply));
}

} // namespace

bool GetFileMD5(DeviceContext *context, wire::Bytes packet)
{
    const auto job = std::make_shared<DigestJob>();
    job->named = NamedReply(packet, sizeof(wire::RemoteMd5Reply), wire::kRemoteMd5Reply);
    job->path = ProgramPath(context, packet).value_or("");
    if (!job->path.empty() && SizeOf(job->path) > kLargeFile && StartWorker(job))
        return true;
    if (!job->path.empty())
        Compute(job.get());
    return Answer(context, *job);
}

bool DigestIsPending()
{
    return s_job != nullptr;
}

bool FinishDigest(DeviceContext *context)
{
    std::uint64_t count;
    if (read(s_job->event.Get(), &count, sizeof count) != sizeof count)
        return true;
    const std::shared_ptr<DigestJob> job = std::move(s_job);
    Connection().WatchSocket();
    return Answer(context, *job);
}

void AbandonDigest()
{
    if (s_job != nullptr)
        s_job->abandoned = true;
    s_job = nullptr;
}

} // namespace remote
