// SPDX-License-Identifier: MIT
#include "program/commands.h"

#include "machine/process_tree.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace board
{

void Execute(std::vector<std::string> words)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
}

int WaitForCommand(pid_t child)
{
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    int status = 0;
    waitpid(child, &status, 0);
    return ExitStatus(status);
}

} // namespace board
