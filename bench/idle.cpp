// SPDX-License-Identifier: MIT
// bench_idle [RUNS]: what the idle daemon costs and how soon its ports are open, in turn with a bare program
// that opens the same ports and ticks once a second. Status 1 when a limit is missed.
#include "bench_report.h"
#include "board/virtual_board.h"
#include "machine/pc_side.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kWatch{6};
constexpr std::chrono::seconds kSettling{2}; // what start-up does once is over then

struct Cost {
    double start = 0;    // ms
    double resident = 0; // MiB
    double dirty = 0;    // MiB
    double wakeUps = 0;  // per second
};

// A number in KiB behind the key of the process's memory summary.
double Memory(pid_t pid, const std::string &key)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key + ":"))
            return std::strtod(line.c_str() + key.size() + 1, nullptr);
    }
    return 0;
}

double VoluntarySwitches(pid_t pid)
{
    double sum = 0;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream file(thread.path() / "status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("voluntary_ctxt_switches:"))
                sum += std::strtod(line.c_str() + std::strlen("voluntary_ctxt_switches:"), nullptr);
        }
    }
    return sum;
}

bool IsBound(pid_t pid, const char *table, const char *portInHex)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/net/" + table);
    std::stringstream text;
    text << file.rdbuf();
    return text.str().find(std::string(":") + portInHex + " 00000000:0000") != std::string::npos;
}

// UDP 8878, TCP 8870 and TCP 8879.
bool AllBound(pid_t pid)
{
    return IsBound(pid, "udp", "22AE") && IsBound(pid, "tcp", "22A6") && IsBound(pid, "tcp", "22AF");
}

template <typename Pid> double StartTime(Clock::time_point begin, Pid pid)
{
    while (Clock::now() - begin < std::chrono::seconds(5)) {
        const pid_t process = pid();
        if (process > 0 && AllBound(process))
            return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    throw std::runtime_error("the ports are not open after 5 s");
}

void Watch(pid_t pid, Cost *cost)
{
    std::this_thread::sleep_for(kSettling);
    const double before = VoluntarySwitches(pid);
    std::this_thread::sleep_for(kWatch);
    cost->wakeUps = (VoluntarySwitches(pid) - before) / static_cast<double>(kWatch.count());
    cost->resident = Memory(pid, "Rss") / 1024;
    cost->dirty = Memory(pid, "Private_Dirty") / 1024;
}

Cost MeasureDaemon(board::VirtualBoard *board)
{
    board->Daemon().Kill();
    Cost cost;
    const Clock::time_point begin = Clock::now();
    std::thread starter([board] { board->Daemon().Start(); });
    cost.start = StartTime(begin, [board] { return board->Daemon().Pid(); });
    starter.join();
    Watch(board->Daemon().Pid(), &cost);
    return cost;
}

int Open(int type, std::uint16_t port)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any) == -1 ||
        (type == SOCK_STREAM && listen(fd, 1) == -1))
        std::_Exit(1);
    return fd;
}

// The baseline's program.
[[noreturn]] void RunBare()
{
    Open(SOCK_DGRAM, 8878);
    Open(SOCK_STREAM, 8870);
    Open(SOCK_STREAM, 8879);
    for (;;)
        sleep(1);
}

// In the PC's own network, where the ports are free.
Cost MeasureBare(const char *self)
{
    Cost cost;
    const Clock::time_point begin = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execl(self, self, "--bare", nullptr);
        std::_Exit(127);
    }
    cost.start = StartTime(begin, [child] { return child; });
    Watch(child, &cost);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    return cost;
}

} // namespace

int main(int count, char **arguments)
{
    if (count > 1 && std::string(arguments[1]) == "--bare")
        RunBare();
    const int runs = std::max(count > 1 ? std::atoi(arguments[1]) : 0, 7);
    board::EnterPcSide();
    board::VirtualBoard board;
    board.Boot();
    bench::Row start{"start to all ports open, ms", {}, {}, bench::Limit::kAtMostValue, 50};
    bench::Row resident{"resident memory, MiB", {}, {}, bench::Limit::kAtMostValue, 12};
    bench::Row dirty{"private dirty memory, MiB", {}, {}, bench::Limit::kAtMostValue, 1.5};
    bench::Row wakeUps{"wake-ups/s", {}, {}, bench::Limit::kAtMostValue, 2.5};
    const auto add = [&](const Cost &cost, bench::Samples bench::Row::*side) {
        (start.*side).push_back(cost.start);
        (resident.*side).push_back(cost.resident);
        (dirty.*side).push_back(cost.dirty);
        (wakeUps.*side).push_back(cost.wakeUps);
    };
    for (int run = 0; run < runs; ++run) {
        add(MeasureDaemon(&board), &bench::Row::subject);
        add(MeasureBare("/proc/self/exe"), &bench::Row::baseline);
    }
    return bench::Report("idle", {start, resident, dirty, wakeUps});
}
