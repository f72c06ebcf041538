// SPDX-License-Identifier: MIT
#include "inside/channel_format.h"
#include "inside/inside.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace inside
{

namespace
{

std::map<pid_t, std::uint32_t> s_processes; // those the library asked for, with its ids

void Fail(const char *what)
{
    std::fprintf(stderr, "virtual board: %s: %s\n", what, std::strerror(errno));
    std::exit(1);
}

// The root becomes "/"; mounts that the PC side makes below it later (a USB disk) still arrive here.
void EnterRoot(const char *root)
{
    if (mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) != 0)
        Fail("mount namespace");
    if (chdir(root) != 0 || syscall(SYS_pivot_root, ".", ".") != 0)
        Fail("pivot_root");
    if (umount2(".", MNT_DETACH) != 0 || chdir("/") != 0)
        Fail("leaving the old root");
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
        Fail("mount /proc");
    mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY, nullptr);
    mount("/etc/virtual-board/cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr);
    if (sethostname("board", 5) != 0)
        Fail("sethostname");
}

// The clock, the kernel and its log belong to the machine, not to the board.
void DropCapabilities()
{
    for (const int capability : {CAP_SYS_TIME, CAP_SYS_MODULE, CAP_SYS_RAWIO, CAP_SYSLOG})
        prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
}

void Report(int channel, Kind kind, std::uint32_t id, int value, int descriptor = -1)
{
    ProcessReport report{kind, id, value};
    iovec part{&report, sizeof report};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    sendmsg(channel, &message, MSG_NOSIGNAL);
}

void SetSoftFileLimit(std::uint32_t limit)
{
    rlimit now{};
    if (limit == 0 || getrlimit(RLIMIT_NOFILE, &now) != 0)
        return;
    now.rlim_cur = limit < now.rlim_max ? limit : now.rlim_max;
    setrlimit(RLIMIT_NOFILE, &now);
}

struct Spawn {
    SpawnHeader header{};
    std::string folder;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    int descriptors[3] = {-1, -1, -1};
};

[[noreturn]] void Become(const Spawn &spawn)
{
    std::vector<char *> arguments, environment;
    for (const std::string &text : spawn.arguments)
        arguments.push_back(const_cast<char *>(text.c_str()));
    for (const std::string &text : spawn.environment)
        environment.push_back(const_cast<char *>(text.c_str()));
    arguments.push_back(nullptr);
    environment.push_back(nullptr);

    if (spawn.header.newSession != 0)
        setsid();
    for (int target = 0; target < 3; ++target)
        dup2(spawn.descriptors[target], target);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    SetSoftFileLimit(spawn.header.softFileLimit);
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (chdir(spawn.folder.c_str()) == 0) {
        environ = environment.data();
        execvp(arguments[0], arguments.data());
    }
    std::fprintf(stderr, "%s: %s\n", arguments[0], std::strerror(errno));
    _exit(errno == ENOENT ? 127 : 126);
}

void Start(int channel, const Spawn &spawn)
{
    const pid_t child = fork();
    if (child == 0)
        Become(spawn);
    if (child < 0) {
        Report(channel, kFailed, spawn.header.id, errno);
        return;
    }
    s_processes[child] = spawn.header.id;
    const int descriptor = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    Report(channel, kStarted, spawn.header.id, child, descriptor);
    if (descriptor >= 0)
        close(descriptor);
}

bool TakeText(const char *&at, const char *end, std::string &text)
{
    const void *zero = std::memchr(at, 0, static_cast<std::size_t>(end - at));
    if (zero == nullptr)
        return false;
    text.assign(at, static_cast<const char *>(zero));
    at = static_cast<const char *>(zero) + 1;
    return true;
}

bool Decode(const char *bytes, std::size_t size, Spawn &spawn)
{
    if (size < sizeof spawn.header)
        return false;
    std::memcpy(&spawn.header, bytes, sizeof spawn.header);
    const char *at = bytes + sizeof spawn.header;
    const char *end = bytes + size;
    if (spawn.header.kind != kSpawn || !TakeText(at, end, spawn.folder))
        return false;
    std::string text;
    for (std::uint32_t i = 0; i < spawn.header.arguments && TakeText(at, end, text); ++i)
        spawn.arguments.push_back(text);
    for (std::uint32_t i = 0; i < spawn.header.environment && TakeText(at, end, text); ++i)
        spawn.environment.push_back(text);
    return !spawn.arguments.empty() && spawn.environment.size() == spawn.header.environment;
}

void TakeDescriptors(msghdr &message, int (&descriptors)[3])
{
    for (cmsghdr *header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_type == SCM_RIGHTS && header->cmsg_len == CMSG_LEN(sizeof descriptors))
            std::memcpy(descriptors, CMSG_DATA(header), sizeof descriptors);
    }
}

// false: the library is gone.
bool TakeRequest(int channel)
{
    static char bytes[kMaxMessage];
    iovec part{bytes, sizeof bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(3 * sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(channel, &message, MSG_CMSG_CLOEXEC);
    if (got <= 0)
        return got < 0 && errno == EINTR;
    Spawn spawn;
    TakeDescriptors(message, spawn.descriptors);
    if (Decode(bytes, static_cast<std::size_t>(got), spawn))
        Start(channel, spawn);
    for (const int descriptor : spawn.descriptors) {
        if (descriptor >= 0)
            close(descriptor);
    }
    return true;
}

void Reap(int channel)
{
    int status = 0;
    for (pid_t child = waitpid(-1, &status, WNOHANG); child > 0; child = waitpid(-1, &status, WNOHANG)) {
        const auto known = s_processes.find(child);
        if (known == s_processes.end())
            continue; // an orphan that init inherited
        Report(channel, kEnded, known->second, status);
        s_processes.erase(known);
    }
}

} // namespace

int RunInit(const char *root, int channel)
{
    fcntl(channel, F_SETFD, FD_CLOEXEC);
    prctl(PR_SET_NAME, "init");
    EnterRoot(root);
    DropCapabilities();
    for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGTSTP, SIGTTOU})
        signal(number, SIG_IGN);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);
    const int signals = signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);

    for (;;) {
        pollfd watched[] = {{channel, POLLIN, 0}, {signals, POLLIN, 0}};
        if (poll(watched, 2, -1) < 0)
            continue;
        signalfd_siginfo drained;
        while (read(signals, &drained, sizeof drained) > 0) {
        }
        Reap(channel);
        if (watched[0].revents != 0 && !TakeRequest(channel))
            return 0;
    }
}

} // namespace inside
