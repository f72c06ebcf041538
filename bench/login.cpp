// SPDX-License-Identifier: MIT
// bench_login [RUNS]: connections made, logged in and ended per second, in turn with a bare loop that accepts
// and answers. Status 1 when the limit is missed.
#include "bench_report.h"
#include "board/virtual_board.h"
#include "common/unique_fd.h"
#include "machine/pc_side.h"
#include "records/session_records.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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

constexpr std::uint16_t kBarePort = 7003;
constexpr std::chrono::milliseconds kRunTime{1000};

// Never returns: the baseline's process.
[[noreturn]] void AnswerLoop(int listener)
{
    const wire::LoginReply reply{.length = sizeof(wire::LoginReply),
                                 .status = wire::kLoginAccepted,
                                 .zero = {}};
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        std::array<char, wire::kSessionBufferSize> buffer;
        if (recv(fd, buffer.data(), buffer.size(), 0) > 0 && send(fd, &reply, sizeof reply, MSG_NOSIGNAL) > 0)
            recv(fd, buffer.data(), buffer.size(), 0);
        close(fd);
    }
}

pid_t StartBare(const board::VirtualBoard &board)
{
    const UniqueFd fd(board.Network().Socket(AF_INET, SOCK_STREAM));
    const sockaddr_in any = bench::At("0.0.0.0", kBarePort);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any) == -1 ||
        listen(fd.Get(), 1) == -1)
        throw std::runtime_error("the baseline has no port");
    const pid_t child = fork();
    if (child == 0)
        AnswerLoop(fd.Get());
    return child;
}

// Logs in as one that no service hears of, and ends with a reset, so that no port is kept waiting.
bool LogInOnce(const sockaddr_in &to)
{
    const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const linger reset{.l_onoff = 1, .l_linger = 0};
    const int on = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const wire::LoginPacket login{.length = sizeof login, .subType = wire::kSessionPlayer};
    wire::LoginReply reply{};
    return connect(fd.Get(), reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 &&
           send(fd.Get(), &login, sizeof login, MSG_NOSIGNAL) == sizeof login &&
           recv(fd.Get(), &reply, sizeof reply, MSG_WAITALL) == sizeof reply &&
           reply.status == wire::kLoginAccepted;
}

double Rate(const sockaddr_in &to)
{
    const Clock::time_point begin = Clock::now();
    double logins = 0;
    while (Clock::now() - begin < kRunTime) {
        if (LogInOnce(to))
            ++logins;
    }
    return logins / std::chrono::duration<double>(Clock::now() - begin).count();
}

} // namespace

int main(int count, char **arguments)
{
    const int runs = std::max(count > 1 ? std::atoi(arguments[1]) : 0, 7);
    board::EnterPcSide();
    board::Options options;
    // Its log goes to a file, as on the board, and not to a reader that shares the clients' processor.
    options.prefix = {"busybox", "sh", "-c", "exec \"$0\" >/tmp/ledboardd.log 2>&1"};
    board::VirtualBoard board(options);
    board.Boot();
    const pid_t bare = StartBare(board);
    bench::Settle(board.Daemon().Pid(), true);
    bench::Settle(bare, true);
    bench::Settle(getpid(), false);

    bench::Row rate{"logins/s", {}, {}, bench::Limit::kAtLeastRatio, 0.60};
    for (int run = 0; run < runs; ++run) {
        rate.subject.push_back(Rate(bench::At(board.Network().BoardAddress().c_str(), wire::kSessionPort)));
        rate.baseline.push_back(Rate(bench::At(board.Network().BoardAddress().c_str(), kBarePort)));
    }
    kill(bare, SIGKILL);
    waitpid(bare, nullptr, 0);
    return bench::Report("login", {rate});
}
