// SPDX-License-Identifier: MIT
// src/base/shell.h: the daemon's one door to the shell. Any thread.
//
// Children get an empty signal mask, default signal actions and no descriptor but the standard ones.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>

// Runs `command` with "/bin/sh -c" and waits for it. The wait status as waitpid gives it, -1 when no shell
// could be started (logged). Blocks the calling thread for as long as the command runs.
int RunShell(const std::string &command);

// Runs `command` and returns what it wrote to standard output, at most `limit` bytes; the rest is read and
// dropped. Empty when no shell could be started (logged).
std::string ReadShell(const std::string &command, std::size_t limit);

// Runs one command at a time in a process group of its own, so that another thread can end it.
class ShellGroup
{
public:
    int Run(const std::string &command); // as RunShell; one thread
    void End(); // any thread: kills the command that runs, its children included; nothing when none runs

private:
    std::mutex mutex_;
    pid_t group_ = -1;
};

// A command that runs beside the caller, in a process group of its own, and may outlive the daemon. One
// thread.
class ShellChild
{
public:
    bool Start(const std::string &command); // false: no shell could be started (logged). None may run.
    std::optional<int> Ended(); // once: the wait status as waitpid gives it; nothing before and later

private:
    pid_t child_ = -1;
};

// A name as it may stand in a command: plain names (letters, digits and "._/-+,:=@%" not led by a dash)
// unchanged, any other in single quotes.
std::string ShellName(const std::string &name);

// Replaces the process by "/bin/sh -c command" with an empty signal mask and default signal actions. Comes
// back only when that failed, with errno and with the signals as they were. Main thread.
void ExecShell(const std::string &command);

// Logs a line when "/bin/sh" is neither BusyBox nor bash: two of the daemon's commands use what only these
// two know. Looks at the file, runs nothing.
void CheckShell();
