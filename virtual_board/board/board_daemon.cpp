// SPDX-License-Identifier: MIT
#include "board/board_daemon.h"

#include "devices/framebuffer.h"
#include "machine/socket_table.h"
#include "records/discovery_records.h"
#include "records/session_records.h"

#include <fmt/core.h>

#include <netinet/tcp.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace board
{

using ledboard::UniqueFd;

namespace
{

namespace fs = std::filesystem;

constexpr Milliseconds kListenLimit{20000}; // it takes its time under an emulator or a sanitizer
constexpr Milliseconds kLoginLimit{20000};
constexpr Milliseconds kEndLimit{10000};

} // namespace

// What lies in the board stays until the program outside is a newer one, so that an upgrade on the board is
// not undone.
void BoardDaemon::Copy()
{
    std::error_code error;
    const auto time = fs::last_write_time(at_.options.daemon, error);
    if (error)
        throw std::runtime_error("virtual board: no daemon at " + at_.options.daemon);
    if (time == copied_)
        return;
    at_.root.CopyIn(at_.options.daemon, kDaemonPath);
    copied_ = time;
}

void BoardDaemon::Launch()
{
    Copy();
    const UniqueFd log = at_.record.OpenLog();
    ProcessRequest request;
    request.arguments = at_.options.prefix;
    request.arguments.emplace_back(kDaemonPath);
    request.environment = at_.processes.Environment();
    if (!at_.options.screens.empty()) {
        request.environment.push_back(fmt::format("LD_PRELOAD={}", kShimPath));
        // The address sanitizer refuses to come after a preloaded library, which does no harm here.
        const char *options = std::getenv("ASAN_OPTIONS");
        request.environment.insert(request.environment.begin(),
                                   fmt::format("ASAN_OPTIONS=verify_asan_link_order=0:{}",
                                               options != nullptr ? options : ""));
    }
    request.softFileLimit = at_.options.softFileLimit;
    request.descriptors[1] = request.descriptors[2] = log.Get();
    auto process = at_.processes.Start(request);
    const std::lock_guard guard(lock_);
    process_ = std::move(process);
}

void BoardDaemon::Start()
{
    const PowerLock power(at_.power);
    Start(power);
}

void BoardDaemon::Start(const PowerLock &power)
{
    if (Running())
        throw std::runtime_error("virtual board: the daemon is running already");
    Launch();
    if (!at_.watcher.WaitFor([this] { return Listens() || !Running(); }, kListenLimit))
        throw std::runtime_error("virtual board: the daemon does not listen; its log:\n" +
                                 at_.record.LogText());
    at_.player.PowerOn(power);
    if (!Running())
        WaitForExit(kEndLimit);
    else if (at_.player.Wanted())
        at_.watcher.WaitFor([this] { return at_.player.LoggedIn() || !Running(); }, kLoginLimit);
}

void BoardDaemon::Restart()
{
    const PowerLock power(at_.power);
    if (Running())
        Kill();
    Start(power);
}

std::shared_ptr<InsideProcess> BoardDaemon::Process() const
{
    const std::lock_guard guard(lock_);
    return process_;
}

bool BoardDaemon::Signal(int signal)
{
    const auto process = Process();
    return process && process->Signal(signal);
}

bool BoardDaemon::Kill(int signal)
{
    return Signal(signal) && WaitForExit(kEndLimit);
}

bool BoardDaemon::WaitForExit(Milliseconds limit) const
{
    const auto process = Process();
    return process && at_.watcher.WaitFor([&] { return process->Ended() && at_.record.LogIsRead(); }, limit);
}

bool BoardDaemon::Running() const
{
    const auto process = Process();
    return process && process->Running();
}

pid_t BoardDaemon::Pid() const
{
    const auto process = Process();
    return process ? process->Pid() : -1;
}

bool BoardDaemon::Listens() const
{
    const pid_t pid = Pid();
    const auto isSession = [](const SocketEntry &one) {
        return one.state == TCP_LISTEN && ntohs(one.local.sin_port) == wire::kSessionPort;
    };
    const auto isDiscovery = [](const SocketEntry &one) {
        return ntohs(one.local.sin_port) == wire::kDiscoveryPort;
    };
    return pid > 0 && std::ranges::any_of(ListSockets(pid, "tcp"), isSession) &&
           std::ranges::any_of(ListSockets(pid, "udp"), isDiscovery);
}

std::optional<int> BoardDaemon::Exit() const
{
    const auto process = Process();
    if (!process || !process->Ended())
        return std::nullopt;
    return ExitStatus(process->Status());
}

std::size_t BoardDaemon::OpenDescriptors() const
{
    std::error_code error;
    std::size_t count = 0;
    for (fs::directory_iterator one(fmt::format("/proc/{}/fd", Pid()), error), end; !error && one != end;
         one.increment(error))
        ++count;
    return count;
}

} // namespace board
