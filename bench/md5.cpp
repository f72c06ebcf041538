// SPDX-License-Identifier: MIT
// bench_md5 [RUNS [MEBIBYTES]]: KMD5 over a file, in turn with md5sum and openssl over the same file; the
// faster of the two is the baseline. Status 1 when the limit is missed.
#include "base/md5.h"

#include "bench_report.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <stdexcept>

namespace
{

using Clock = std::chrono::steady_clock;

// A file of random bytes that goes with the object.
class TestFile
{
public:
    explicit TestFile(std::size_t mebibytes)
    {
        const int fd = mkstemp(name_);
        std::mt19937_64 random(1);
        std::vector<std::uint64_t> block((1U << 20U) / sizeof(std::uint64_t));
        for (std::size_t written = 0; written < mebibytes; ++written) {
            std::generate(block.begin(), block.end(), std::ref(random));
            if (write(fd, block.data(), 1U << 20U) != 1 << 20)
                throw std::runtime_error("there is no room for the test file");
        }
        close(fd);
    }
    ~TestFile() { unlink(name_); }
    TestFile(const TestFile &) = delete;
    TestFile &operator=(const TestFile &) = delete;
    const char *Name() const { return name_; }

private:
    char name_[32] = "/tmp/bench_md5.XXXXXX";
};

double SecondsOf(const std::function<bool()> &work)
{
    const Clock::time_point begin = Clock::now();
    if (!work())
        throw std::runtime_error("a digest could not be computed");
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

bool RunProgram(const std::vector<const char *> &words)
{
    const pid_t child = fork();
    if (child == 0) {
        std::vector<char *> arguments;
        arguments.reserve(words.size() + 1);
        for (const char *const word : words)
            arguments.push_back(const_cast<char *>(word));
        arguments.push_back(nullptr);
        if (std::freopen("/dev/null", "w", stdout) != nullptr)
            execvp(arguments[0], arguments.data());
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

} // namespace

int main(int count, char **arguments)
{
    const int runs = std::max(count > 1 ? std::atoi(arguments[1]) : 0, 7);
    const int mebibytes = count > 2 ? std::atoi(arguments[2]) : 256;
    const TestFile file(static_cast<std::size_t>(mebibytes));
    bench::Settle(getpid(), false);
    bench::Row rate{"MiB/s beside the faster of two", {}, {}, bench::Limit::kAtLeastRatio, 0.90};
    for (int run = 0; run < runs; ++run) {
        const double own =
            SecondsOf([&] { return DigestOfFile(file.Name(), [] { return false; }).has_value(); });
        const double coreutils = SecondsOf([&] { return RunProgram({"md5sum", file.Name()}); });
        const double openssl = SecondsOf([&] { return RunProgram({"openssl", "md5", file.Name()}); });
        rate.subject.push_back(mebibytes / own);
        rate.baseline.push_back(mebibytes / std::min(coreutils, openssl));
    }
    return bench::Report("MD5 of a file", {rate});
}
