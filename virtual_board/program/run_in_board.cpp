// SPDX-License-Identifier: MIT
#include "program/run_in_board.h"

#include "program/commands.h"
#include "program/steering_socket.h"

#include <fmt/core.h>

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace board
{

namespace
{

int Refuse(const std::string &why)
{
    fmt::print(stderr, "virtual-board: {}\n", why);
    return 1;
}

[[noreturn]] void BecomeCommand(const std::vector<std::string> &words)
{
    // As for all processes of the board: the clock, the kernel and its log belong to the machine.
    for (const int capability : {CAP_SYS_TIME, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYSLOG})
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("HOME", "/home/root", 1);
    if (chdir("/home/root") == 0)
        Execute(words);
    const int status = errno == ENOENT ? 127 : 126;
    Refuse(fmt::format("{}: {}", words.front(), std::strerror(errno)));
    _exit(status);
}

// In a child of its own, since it cannot go back.
[[noreturn]] void EnterBoard(pid_t init, const std::vector<std::string> &arguments)
{
    const int process = static_cast<int>(syscall(SYS_pidfd_open, init, 0));
    // If the root of this machine was changed, the root of the mount namespace is not the board's.
    const int root = open(fmt::format("/proc/{}/root", init).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (setns(process, CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0 ||
        fchdir(root) != 0 || chroot(".") != 0)
        _exit(Refuse(std::string("cannot enter the board: ") + std::strerror(errno)));
    const pid_t child = fork(); // a process namespace takes only children
    if (child == 0)
        BecomeCommand(arguments);
    _exit(WaitForCommand(child));
}

} // namespace

int RunInRunningBoard(const std::vector<std::string> &arguments)
{
    const Answer state = AskRunningBoard({"state"});
    const pid_t init = state.json.value("init", -1);
    if (!state.ok || init <= 0)
        return Refuse(state.ok ? "the board is off" : state.lines.front());
    const pid_t visitor = fork();
    if (visitor == 0)
        EnterBoard(init, arguments);
    return WaitForCommand(visitor);
}

} // namespace board
