// SPDX-License-Identifier: MIT
#include "settings/serial_signals.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/sockets.h"
#include "base/threads.h"
#include "records/setting_records.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr std::size_t kMaxLine = 98;

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPhase{1};
constexpr Clock::time_point kNever = Clock::time_point::max();

// The pipe from the handler to the thread: one byte for each signal. Never closed, since a signal can come at
// any time.
int s_reading = -1;
int s_writing = -1;

// The decimal number that stands at a fixed place of the line.
unsigned NumberAt(const std::string &line, std::size_t place)
{
    // QUIRK ini-fixed-place: the number is read where it stands after a key at the start of the line; a
    // search for the equals sign would be expected.
    return place < line.size() ? static_cast<unsigned>(std::strtoll(line.c_str() + place, nullptr, 10)) : 0;
}

// Acts on signals; the thread's own.
class SignalServer
{
public:
    explicit SignalServer(SignalActions actions) : actions_(std::move(actions)) {}
    void Run();

private:
    bool ServeSignal(); // false at the end of the pipe
    void Act(int signal);
    void ApplySerialIni();
    void ApplyLine(const std::string &line);
    void DrawWhenDue();
    int MillisecondsToNextPhase() const; // -1: the slant lines are off

    SignalActions actions_;
    Clock::time_point nextPhase_ = kNever; // of the slant lines
};

void SignalServer::Run()
{
    for (;;) {
        pollfd wait{.fd = s_reading, .events = POLLIN, .revents = 0};
        if (poll(&wait, 1, MillisecondsToNextPhase()) == 1 && !ServeSignal())
            return;
        DrawWhenDue();
    }
}

bool SignalServer::ServeSignal()
{
    std::uint8_t signal = 0;
    const ssize_t count = read(s_reading, &signal, sizeof signal);
    if (count == sizeof signal)
        Act(signal);
    return count == sizeof signal || (count == -1 && errno == EINTR);
}

void SignalServer::Act(int signal)
{
    std::fprintf(stderr, "-------------------------%s be call--------------------------\n", "sig_handle");
    if (signal == SIGUSR1)
        ApplySerialIni();
    else if (signal == SIGUSR2)
        nextPhase_ = actions_.toggleSlantLines() ? Clock::now() + kPhase : kNever;
}

void SignalServer::ApplySerialIni()
{
    const FilePointer file = OpenFile(paths::kSerialIni, "rb");
    std::array<char, kMaxLine + 1> buffer{};
    while (file && std::fgets(buffer.data(), static_cast<int>(buffer.size()), file.get()) != nullptr) {
        std::string line(buffer.data());
        // QUIRK ini-last-character: the last character goes, whether it is the line's end or not; only the
        // line's end would be expected to go.
        if (!line.empty())
            line.pop_back();
        ApplyLine(line);
    }
}

void SignalServer::ApplyLine(const std::string &line)
{
    constexpr std::size_t kScreenSizePlace = 12;
    constexpr std::size_t kLuminancePlace = 11;
    std::printf("g_serial_thread write serial, %s.\n", line.c_str());
    if (line.find("kScreenSize") != std::string::npos)
        actions_.writeParameter(wire::kIdScreenSize, NumberAt(line, kScreenSizePlace));
    if (line.find("kLuminance") != std::string::npos)
        actions_.writeParameter(wire::kIdMaxLuminance, NumberAt(line, kLuminancePlace));
}

void SignalServer::DrawWhenDue()
{
    if (Clock::now() < nextPhase_)
        return;
    nextPhase_ = Clock::now() + kPhase;
    actions_.drawSlantLines();
}

int SignalServer::MillisecondsToNextPhase() const
{
    using std::chrono::milliseconds;
    if (nextPhase_ == kNever)
        return -1;
    const auto left = std::chrono::ceil<milliseconds>(nextPhase_ - Clock::now());
    return static_cast<int>(std::max(left, milliseconds(0)).count());
}

bool Catch(int signal)
{
    struct sigaction action = {};
    action.sa_handler = sig_handle;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return sigaction(signal, &action, nullptr) == 0;
}

} // namespace

void sig_handle(int signal)
{
    const int error = errno;
    const auto byte = static_cast<std::uint8_t>(signal);
    // A signal that finds the pipe full is dropped: thousands are waiting already.
    [[maybe_unused]] const ssize_t written = write(s_writing, &byte, sizeof byte);
    errno = error;
}

bool InstallSignals()
{
    if (s_reading == -1) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) == -1) {
            DiagErrno(kUnit, __func__, __LINE__, "pipe: ");
            return false;
        }
        s_reading = ends[0];
        s_writing = ends[1];
    }
    if (SetNonBlocking(s_writing) && Catch(SIGUSR1) && Catch(SIGUSR2))
        return true;
    DiagErrno(kUnit, __func__, __LINE__, "sigaction: ");
    return false;
}

void StartSignalThread(SignalActions actions)
{
    const SignalsBlocked blocked;
    try {
        std::thread([server = SignalServer(std::move(actions))]() mutable { server.Run(); }).detach();
    } catch (const std::system_error &error) {
        Diag(kUnit, __func__, __LINE__, "signal thread: %s", error.what());
    }
}
