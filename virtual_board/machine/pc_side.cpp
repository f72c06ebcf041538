// SPDX-License-Identifier: MIT
#include "machine/pc_side.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace board
{

namespace
{

constexpr int kForwarded[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2};

bool CanEnterPcSide(const char *&why)
{
    if (geteuid() != 0) {
        why = "it needs root; start it with sudo";
        return false;
    }
    const pid_t child = fork();
    if (child == 0)
        _exit(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS) == 0 ? 0 : 1);
    int status = 1;
    waitpid(child, &status, 0);
    if (status != 0)
        why =
            "the kernel or the container refuses namespaces; a container has to be started with --privileged";
    return status == 0;
}

[[noreturn]] void Fail(const char *what)
{
    std::fprintf(stderr, "virtual board: %s: %s\n", what, std::strerror(errno));
    _exit(1);
}

void RaiseLoopback()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0)
        Fail("loopback interface");
    close(fd);
}

void MakePrivate()
{
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS) != 0)
        Fail("namespaces");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        Fail("private mounts");
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        Fail("mount /proc");
    if (mount("tmpfs", "/run", "tmpfs", MS_NOSUID, "mode=755") != 0 || mkdir(kPcFolder, 0755) != 0)
        Fail("mount /run");
    if (sethostname("pc", 2) != 0)
        Fail("host name");
    RaiseLoopback();
}

// A key of the terminal reaches every process of the foreground group by itself; everything else was sent to
// this one process only and is passed on.
int OpenForwardedSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : kForwarded)
        sigaddset(&set, number);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// Waits for `child`, passing signals on and reaping orphans; ends early when `lifeline` closes.
int WaitFor(pid_t child, int signals, int lifeline)
{
    for (;;) {
        pollfd watched[] = {{signals, POLLIN, 0}, {lifeline, 0, 0}};
        if (poll(watched, lifeline < 0 ? 1 : 2, -1) < 0)
            continue;
        if (lifeline >= 0 && (watched[1].revents & (POLLHUP | POLLERR)) != 0)
            _exit(1);
        signalfd_siginfo info;
        while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            const int number = static_cast<int>(info.ssi_signo);
            const bool fromKeyboard = (number == SIGINT || number == SIGQUIT) && info.ssi_code > 0;
            if (number != SIGCHLD && !fromKeyboard)
                kill(child, number);
        }
        int status = 0;
        for (pid_t ended = waitpid(-1, &status, WNOHANG); ended > 0; ended = waitpid(-1, &status, WNOHANG)) {
            if (ended == child)
                return status;
        }
    }
}

// Process 1 of the PC side keeps the caller from being one: that one would ignore its own fatal signals.
void RunPcInit(int lifeline)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_NAME, "pc-init");
    MakePrivate();
    sigset_t before;
    sigprocmask(SIG_SETMASK, nullptr, &before);
    const int signals = OpenForwardedSignals();
    const pid_t child = fork();
    if (child < 0)
        Fail("fork");
    if (child == 0) {
        close(lifeline);
        close(signals);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        return;
    }
    const int status = WaitFor(child, signals, lifeline);
    _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

// Ends the way the child did. Process 1 can only tell a signal as a status above 128.
[[noreturn]] void EndLike(int status)
{
    if (WIFEXITED(status) && WEXITSTATUS(status) <= 128)
        _exit(WEXITSTATUS(status));
    const int number = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status) - 128;
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    signal(number, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    raise(number);
    _exit(128 + number);
}

} // namespace

const std::string &ProgramFolder()
{
    static const std::string folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    return folder;
}

void EnterPcSide()
{
    ProgramFolder();
    const char *why = nullptr;
    if (!CanEnterPcSide(why)) {
        std::fprintf(stderr, "virtual board: cannot work here: %s.\n", why);
        std::exit(1);
    }
    std::fflush(nullptr);
    int lifeline[2];
    if (pipe2(lifeline, O_CLOEXEC) != 0 || unshare(CLONE_NEWPID) != 0)
        Fail("process namespace");
    sigset_t before;
    sigprocmask(SIG_SETMASK, nullptr, &before);
    const int signals = OpenForwardedSignals();
    const pid_t init = fork();
    if (init < 0)
        Fail("fork");
    if (init == 0) {
        close(lifeline[1]);
        close(signals);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        RunPcInit(lifeline[0]);
        return;
    }
    close(lifeline[0]);
    EndLike(WaitFor(init, signals, -1));
}

} // namespace board
