// SPDX-License-Identifier: MIT
// bench_discovery [RUNS]: searches answered per second with 32 under way and the time of one alone, in turn
// with a bare loop that waits in the same select over ten descriptors and answers as many bytes. Status 1
// when a limit is missed.
#include "bench_report.h"
#include "board/virtual_board.h"
#include "common/unique_fd.h"
#include "machine/pc_side.h"
#include "records/discovery_records.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>

namespace
{

using Clock = std::chrono::steady_clock;
using ledboard::UniqueFd;

constexpr std::uint16_t kBroadcastEcho = 7001;
constexpr std::uint16_t kSenderEcho = 7002;
constexpr std::uint16_t kCustomPort = 20000;
constexpr int kUnderWay = 32;
constexpr int kSingles = 4000; // asked one after the other in a run
constexpr std::chrono::milliseconds kRunTime{1000};

// Never returns: the baseline's process.
[[noreturn]] void EchoLoop(int fd, bool broadcast)
{
    std::array<int, 18> idle{};
    for (std::size_t pair = 0; pair < idle.size(); pair += 2) {
        if (pipe(&idle[pair]) == -1)
            std::_Exit(1);
    }
    std::array<char, 1024> buffer{};
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        for (std::size_t pair = 0; pair < idle.size(); pair += 2)
            FD_SET(idle[pair], &readable);
        fd_set failed = readable; // the daemon asks for those as well
        timeval limit{.tv_sec = 1, .tv_usec = 0};
        if (select(FD_SETSIZE / 16, &readable, nullptr, &failed, &limit) < 1)
            continue;
        sockaddr_in sender{};
        socklen_t size = sizeof sender;
        if (recvfrom(fd, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&sender), &size) < 1)
            continue;
        if (broadcast)
            sender.sin_addr.s_addr = INADDR_BROADCAST;
        sendto(fd, buffer.data(), sizeof(wire::SearchReply), 0, reinterpret_cast<sockaddr *>(&sender), size);
    }
}

pid_t StartEcho(const board::VirtualBoard &board, std::uint16_t port, bool broadcast)
{
    const UniqueFd fd(board.Network().Socket(AF_INET, SOCK_DGRAM));
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    const sockaddr_in any = bench::At("0.0.0.0", port);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any) == -1)
        throw std::runtime_error("the baseline has no port");
    const pid_t child = fork();
    if (child == 0)
        EchoLoop(fd.Get(), broadcast);
    bench::Settle(child, true);
    return child;
}

class Asker
{
public:
    Asker(const std::string &address, std::uint16_t port)
        : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), to_(bench::At(address.c_str(), port))
    {
        const int on = 1;
        setsockopt(fd_.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
        const sockaddr_in any = bench::At("0.0.0.0", 0);
        bind(fd_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any);
    }

    void Ask() const
    {
        wire::SearchRequest request{};
        request.header.ph_length = sizeof request;
        sendto(fd_.Get(), &request, sizeof request, 0, reinterpret_cast<const sockaddr *>(&to_), sizeof to_);
    }

    // False when no answer came in time.
    bool Take() const
    {
        pollfd waiting{.fd = fd_.Get(), .events = POLLIN, .revents = 0};
        return poll(&waiting, 1, 500) == 1 && TakeNow();
    }

    // Asks and takes the answer without sleeping: how long this side takes to wake up is not the board's
    // time.
    bool AskAwake() const
    {
        Ask();
        const Clock::time_point end = Clock::now() + std::chrono::milliseconds(500);
        while (!TakeNow()) {
            if (Clock::now() > end)
                return false;
        }
        return true;
    }

private:
    bool TakeNow() const
    {
        std::array<char, 1024> buffer;
        return recv(fd_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT) == sizeof(wire::SearchReply);
    }

    UniqueFd fd_;
    sockaddr_in to_;
};

double Rate(const Asker &asker)
{
    for (int index = 0; index < kUnderWay; ++index)
        asker.Ask();
    const Clock::time_point begin = Clock::now();
    double answers = 0;
    while (Clock::now() - begin < kRunTime) {
        if (asker.Take())
            ++answers;
        asker.Ask();
    }
    const double rate = answers / std::chrono::duration<double>(Clock::now() - begin).count();
    for (int index = 0; index < kUnderWay; ++index)
        asker.Take();
    return rate;
}

// 99th percentile in microseconds.
double AnswerTime(const Asker &asker)
{
    bench::Samples times;
    for (int index = 0; index < kSingles; ++index) {
        const Clock::time_point begin = Clock::now();
        if (asker.AskAwake())
            times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    return bench::Percentile(times, 0.99);
}

} // namespace

int main(int count, char **arguments)
{
    const int runs = std::max(count > 1 ? std::atoi(arguments[1]) : 0, 7);
    board::EnterPcSide();
    board::Options options;
    options.files["/home/root/plexa_data/server_config"] = "port=20000\n";
    board::VirtualBoard board(options);
    board.Boot();
    const pid_t broadcastEcho = StartEcho(board, kBroadcastEcho, true);
    const pid_t senderEcho = StartEcho(board, kSenderEcho, false);
    bench::Settle(board.Daemon().Pid(), true);
    bench::Settle(getpid(), false);

    const Asker own(board.Network().BoardAddress(), wire::kDiscoveryPort);
    const Asker ownCustom(board.Network().BoardAddress(), kCustomPort);
    const Asker bare(board.Network().BoardAddress(), kBroadcastEcho);
    const Asker bareSender(board.Network().BoardAddress(), kSenderEcho);
    bench::Row rate{"answers/s, 32 under way, 8878", {}, {}, bench::Limit::kAtLeastRatio, 0.70};
    bench::Row custom{"answers/s, 32 under way, custom", {}, {}, bench::Limit::kAtLeastRatio, 0.70};
    bench::Row time{"99th percentile of one alone, us", {}, {}, bench::Limit::kAtMostValue, 100};
    for (int run = 0; run < runs; ++run) {
        rate.subject.push_back(Rate(own));
        rate.baseline.push_back(Rate(bare));
        custom.subject.push_back(Rate(ownCustom));
        custom.baseline.push_back(Rate(bareSender));
        time.subject.push_back(AnswerTime(own));
        time.baseline.push_back(AnswerTime(bare));
    }
    for (const pid_t echo : {broadcastEcho, senderEcho}) {
        kill(echo, SIGKILL);
        waitpid(echo, nullptr, 0);
    }
    return bench::Report("discovery", {rate, custom, time});
}
