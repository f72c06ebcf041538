// SPDX-License-Identifier: MIT
// tests/board/ledboard_run.h: the real ledboard, run on the PC side without a terminal.
#pragma once

#include "common/unique_fd.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

struct LedboardResult {
    int status = -1; // exit status, 128 + number after a signal
    std::string out;
    std::string err;
};

class LedboardRun
{
public:
    // Standard output goes to the file `output`, if it is not empty, otherwise to the result. `name` is one
    // of our programs.
    explicit LedboardRun(const std::vector<std::string> &arguments, const std::string &output = "",
                         const std::string &name = "ledboard")
        : out_(output.empty() ? memfd_create("out", MFD_CLOEXEC)
                              : open(output.c_str(), O_WRONLY | O_CLOEXEC)),
          err_(memfd_create("err", MFD_CLOEXEC))
    {
        std::string program = std::string(std::getenv("LEDBOARD_BIN_DIR")) + "/" + name;
        std::vector<std::string> words = arguments;
        std::vector<char *> argv = {program.data()};
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        const ledboard::UniqueFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
        pid_ = fork();
        if (pid_ == 0) {
            dup2(nothing.Get(), STDIN_FILENO);
            dup2(out_.Get(), STDOUT_FILENO);
            dup2(err_.Get(), STDERR_FILENO);
            execv(program.c_str(), argv.data());
            _exit(127);
        }
    }
    pid_t Pid() const { return pid_; }

    LedboardResult Wait() const
    {
        int status = 0;
        waitpid(pid_, &status, 0);
        const int exit = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return {exit, ReadAll(out_), ReadAll(err_)};
    }

private:
    static std::string ReadAll(const ledboard::UniqueFd &file)
    {
        std::string text;
        char bytes[4096];
        for (ssize_t got;
             (got = pread(file.Get(), bytes, sizeof bytes, static_cast<off_t>(text.size()))) > 0;)
            text.append(bytes, static_cast<std::size_t>(got));
        return text;
    }

    ledboard::UniqueFd out_;
    ledboard::UniqueFd err_;
    pid_t pid_ = -1;
};

inline LedboardResult Ledboard(const std::vector<std::string> &arguments, const std::string &output = "")
{
    return LedboardRun(arguments, output).Wait();
}
