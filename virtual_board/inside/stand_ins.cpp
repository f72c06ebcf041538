// SPDX-License-Identifier: MIT
#include "inside/channel_format.h"
#include "inside/inside.h"

#include <fcntl.h>
#include <sys/reboot.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <string>

namespace inside
{

namespace
{

void Journal(const char *name, int argc, char **argv)
{
    std::string text = name;
    for (int i = 1; i < argc; ++i)
        text.append(1, '\0').append(argv[i]);
    AppendToJournal(kJournalStandIn, text.data(), text.size());
}

// In a process namespace of its own, the kernel answers this call by ending every process of the namespace;
// the library sees which of the two it was.
int EndBoard(int how)
{
    reboot(how);
    return 1;
}

int RunDate(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "-s", 2) == 0 || std::strncmp(argv[i], "--set", 5) == 0) {
            Journal("date", argc, argv);
            return 0;
        }
    }
    char name[] = "date";
    argv[0] = name;
    execv("/usr/bin/busybox", argv);
    return 127;
}

// As the board's shell does it, but without a word in the journal. True when it worked.
bool RunUnseen(const char *script)
{
    const pid_t child = fork();
    if (child == 0) {
        execl("/usr/bin/busybox", "sh", "-c", script, nullptr);
        _exit(127);
    }
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

// The dial-up daemon makes its link, goes into the background and stays there until somebody kills it; the
// link goes with it.
int RunPppd(int argc, char **argv)
{
    constexpr int kConnectFailed = 8;
    constexpr char kUp[] = "ip link add ppp0 type veth peer name ppp0-peer && ip link set ppp0-peer up && "
                           "ip addr add 10.64.64.64 peer 10.64.64.1 dev ppp0 && ip link set ppp0 up";
    constexpr char kDown[] = "ip link delete ppp0";
    Journal("pppd", argc, argv);
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGHUP, SIGINT, SIGTERM})
        sigaddset(&ends, number);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    if (access("/etc/ppp/no-carrier", F_OK) == 0 || !RunUnseen(kUp))
        return kConnectFailed;
    if (fork() != 0)
        return 0;
    setsid();
    const int nothing = open("/dev/null", O_RDWR);
    for (int standard = 0; standard < 3; ++standard)
        dup2(nothing, standard);
    int number = 0;
    sigwait(&ends, &number);
    RunUnseen(kDown);
    return 0;
}

int SyncBoard()
{
    const int fd = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int result = fd < 0 ? 1 : syncfs(fd);
    if (fd >= 0)
        close(fd);
    return result == 0 ? 0 : 1;
}

} // namespace

void AppendToJournal(char kind, const char *bytes, unsigned long size)
{
    const int fd = open(kJournalPath, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0)
        return;
    std::uint32_t length = static_cast<std::uint32_t>(size + 1);
    iovec parts[] = {{&length, sizeof length}, {&kind, 1}, {const_cast<char *>(bytes), size}};
    [[maybe_unused]] const ssize_t written = writev(fd, parts, 3);
    close(fd);
}

int RunRecorder(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc && argv[i][0] == '-'; ++i) {
        if (argv[i][1] == '-' || std::strchr(argv[i], 'c') == nullptr)
            continue;
        int command = i + 1;
        while (command + 1 < argc && std::strcmp(argv[command], "--") == 0)
            ++command;
        AppendToJournal(kJournalCommand, argv[command], std::strlen(argv[command]));
        break;
    }
    char shell[] = "sh";
    if (argc > 0)
        argv[0] = shell;
    execv("/usr/bin/busybox", argv);
    return 127;
}

bool RunStandIn(const char *name, int argc, char **argv, int &status)
{
    const auto is = [name](const char *other) { return std::strcmp(name, other) == 0; };
    if (is("date")) {
        status = RunDate(argc, argv);
    } else if (is("hwclock")) {
        Journal(name, argc, argv);
        status = 0;
    } else if (is("sync")) {
        status = SyncBoard();
    } else if (is("pppd")) {
        status = RunPppd(argc, argv);
    } else if (is("reboot") || is("poweroff") || is("halt")) {
        Journal(name, argc, argv);
        status = EndBoard(is("reboot") ? RB_AUTOBOOT : RB_POWER_OFF);
    } else {
        return false;
    }
    return true;
}

} // namespace inside
