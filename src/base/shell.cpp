// SPDX-License-Identifier: MIT
#include "base/shell.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/sockets.h"
#include "common/unique_fd.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

namespace
{

constexpr char kUnit[] = "src/shell.cpp";
constexpr char kShell[] = "/bin/sh";

// The attributes and file actions with which a child starts; owns them.
class SpawnSetup
{
public:
    SpawnSetup()
    {
        posix_spawnattr_init(&attributes_);
        posix_spawn_file_actions_init(&actions_);
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes_, &none);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnSetup()
    {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }
    SpawnSetup(const SpawnSetup &) = delete;
    SpawnSetup &operator=(const SpawnSetup &) = delete;

    void SetStandardOutput(int fd) { posix_spawn_file_actions_adddup2(&actions_, fd, STDOUT_FILENO); }

    // A group of its own can be killed with all processes that the command starts.
    void SetOwnGroup()
    {
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_,
                                 POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }

    std::optional<pid_t> Start(const std::string &command)
    {
        std::string shell = "sh";
        std::string option = "-c";
        std::string text = command;
        char *const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
        pid_t child = -1;
        const int error = posix_spawn(&child, kShell, &actions_, &attributes_, arguments, environ);
        if (error == 0)
            return child;
        errno = error; // posix_spawn returns it instead of setting it
        DiagErrno(kUnit, "RunShell", __LINE__, "can't start a shell for \"%s\": ", command.c_str());
        return std::nullopt;
    }

private:
    posix_spawnattr_t attributes_;
    posix_spawn_file_actions_t actions_;
};

int WaitFor(pid_t child)
{
    int status = -1;
    while (waitpid(child, &status, 0) == -1) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// Whether the file contains the name of a suitable shell. It is the shell itself or a script in its place
// that runs one.
bool IsWantedShell(const std::string &path)
{
    constexpr std::size_t kMaxMark = 8;
    const FilePointer file = OpenFile(path, "rb");
    if (!file)
        return false;
    std::string window;
    char block[4096];
    while (const std::size_t count = std::fread(block, 1, sizeof block, file.get())) {
        window.append(block, count);
        for (const char *const mark : {"BusyBox", "busybox", "GNU bash"}) {
            if (window.find(mark) != std::string::npos)
                return true;
        }
        // The end stays: a mark may begin in one block and end in the next.
        window.erase(0, window.size() - std::min(window.size(), kMaxMark));
    }
    return false;
}

bool IsPlain(const std::string &name)
{
    constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._/-+,:=@%";
    return !name.empty() && name.front() != '-' && name.find_first_not_of(kPlain) == std::string::npos;
}

} // namespace

int RunShell(const std::string &command)
{
    SpawnSetup setup;
    const std::optional<pid_t> child = setup.Start(command);
    return child ? WaitFor(*child) : -1;
}

int ShellGroup::Run(const std::string &command)
{
    SpawnSetup setup;
    setup.SetOwnGroup();
    std::optional<pid_t> child;
    {
        const std::lock_guard lock(mutex_);
        child = setup.Start(command);
        if (!child)
            return -1;
        group_ = *child;
    }
    // WNOWAIT leaves the ended child unreaped, so that no other process can get its number while End may
    // still use it.
    siginfo_t ended;
    while (waitid(P_PID, static_cast<id_t>(*child), &ended, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
    {
        const std::lock_guard lock(mutex_);
        group_ = -1;
    }
    return WaitFor(*child);
}

void ShellGroup::End()
{
    const std::lock_guard lock(mutex_);
    if (group_ != -1)
        kill(-group_, SIGKILL);
}

bool ShellChild::Start(const std::string &command)
{
    SpawnSetup setup;
    setup.SetOwnGroup();
    child_ = setup.Start(command).value_or(-1);
    return child_ != -1;
}

std::optional<int> ShellChild::Ended()
{
    int status = -1;
    if (child_ == -1 || waitpid(child_, &status, WNOHANG) == 0)
        return std::nullopt;
    child_ = -1;
    return status;
}

void ShellChild::End() const
{
    if (child_ != -1)
        kill(-child_, SIGTERM);
}

std::string ReadShell(const std::string &command, std::size_t limit)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        DiagErrno(kUnit, "ReadShell", __LINE__, "can't make a pipe for \"%s\": ", command.c_str());
        return {};
    }
    const ledboard::UniqueFd reading(ends[0]);
    ledboard::UniqueFd writing(ends[1]);
    SpawnSetup setup;
    setup.SetStandardOutput(writing.Get());
    const std::optional<pid_t> child = setup.Start(command);
    writing.Reset(); // the child has its own; the read below ends only when no other is left
    if (!child)
        return {};
    std::string output;
    char block[1024];
    for (;;) {
        const ssize_t count = read(reading.Get(), block, sizeof block);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        // Read to the end also beyond the limit: a full pipe would stop the command.
        output.append(block, std::min(static_cast<std::size_t>(count), limit - output.size()));
    }
    WaitFor(*child);
    return output;
}

std::string ShellName(const std::string &name)
{
    if (IsPlain(name))
        return name;
    std::string quoted = "'";
    for (const char character : name) {
        if (character == '\'')
            quoted += "'\\''"; // ends the quotes, adds one as plain text, opens them again
        else
            quoted += character;
    }
    return quoted + "'";
}

void ExecShell(const std::string &command)
{
    struct sigaction before[NSIG];
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    sigset_t none;
    sigset_t mask; // as it was
    sigemptyset(&none);
    // exec keeps the mask, and the signals that are ignored: both would be passed on to the command.
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &standard, &before[number]);
    pthread_sigmask(SIG_SETMASK, &none, &mask);
    execl(kShell, kShell, "-c", command.c_str(), nullptr);
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    for (int number = 1; number < NSIG; ++number)
        sigaction(number, &before[number], nullptr);
    errno = error;
}

void CheckShell()
{
    if (!IsWantedShell(kShell))
        Diag(kUnit, __func__, __LINE__,
             "/bin/sh is neither BusyBox nor bash: firmware archives can't be unpacked with it.");
}
