// SPDX-License-Identifier: MIT
// src/base/shell.h: runs shell commands; nothing else in the daemon starts a process. Any thread.
//
// A command gets an empty signal mask, the default signal actions and only the standard descriptors.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>

// Runs `command` with "/bin/sh -c" and waits until it ends. Returns its wait status as waitpid does, or -1 if
// no shell could be started (logged).
int RunShell(const std::string &command);

// Runs `command`, waits until it ends and returns its standard output, at most `limit` bytes; the rest is
// read and dropped. Empty if no shell could be started (logged).
std::string ReadShell(const std::string &command, std::size_t limit);

// Runs one command at a time in a process group of its own, so that another thread can end it.
class ShellGroup
{
public:
    int Run(const std::string &command); // as RunShell; always the same thread
    // Kills the running command and its children. Does nothing if no command runs. Any thread.
    void End();

private:
    std::mutex mutex_;
    pid_t group_ = -1;
};

// Runs one command at a time and does not wait for it. The command has a process group of its own and may
// outlive the daemon. An object belongs to one thread.
class ShellChild
{
public:
    // False: no shell could be started (logged). Call it only if no command of this object runs.
    bool Start(const std::string &command);
    // The wait status as waitpid gives it, returned once when the command has ended; nothing before and
    // after.
    std::optional<int> Ended();
    // Sends SIGTERM to the command and its children, as long as Ended has not returned its status. Does not
    // wait; children that have left the group are not reached.
    void End() const;

private:
    pid_t child_ = -1;
};

// The name in a form that a command can contain: unchanged if it has only letters, digits and "._/-+,:=@%"
// and does not begin with a dash, otherwise in single quotes.
std::string ShellName(const std::string &name);

// Replaces the process by "/bin/sh -c command" with an empty signal mask and the default signal actions.
// Returns only if that failed, with errno and with the signals as they were. Main thread.
void ExecShell(const std::string &command);

// Logs a line if "/bin/sh" is neither BusyBox nor bash: two of the daemon's commands use syntax that other
// shells do not know. Reads the file and runs nothing.
void CheckShell();
