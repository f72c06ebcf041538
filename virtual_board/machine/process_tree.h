// SPDX-License-Identifier: MIT
// virtual_board/machine/process_tree.h: the board's processes: boots its init, starts processes below it, and
// learns how they end. Every function may be called from any thread.
#pragma once

#include "common/unique_fd.h"
#include "machine/watcher.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace board
{

struct ProcessRequest {
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    std::string folder = "/home/root";
    unsigned softFileLimit = 0; // RLIMIT_NOFILE; 0: as inherited
    bool newSession = true;
    int descriptors[3] = {-1, -1, -1}; // standard input, output, error; -1: /dev/null. The caller keeps them.
};

struct RunResult {
    int status = -1;    // as ExitStatus; -1 also if the time ran out
    std::string output; // standard output and standard error
};

// The exit status of a process that ended with `waitStatus`; 128 + number after a signal. -1: not known.
int ExitStatus(int waitStatus);

// One process inside the board.
class InsideProcess
{
public:
    bool Running() const;
    bool Ended() const;            // its status is known
    int Status() const;            // wait status; -1 while it runs, or if the board went down first
    pid_t Pid() const;             // as the PC side sees it; -1 if it has ended
    bool Signal(int number) const; // false: it has ended

private:
    friend class ProcessTree;
    mutable std::mutex lock_;
    ledboard::UniqueFd descriptor_; // of the process
    pid_t pid_ = -1;
    bool started_ = false;
    bool ended_ = false;
    int status_ = -1;
};

enum class BoardEnd { kCrashed, kRebooted, kPoweredOff };

class ProcessTree
{
public:
    // `environment`: "NAME=value" for every command, besides PATH, HOME and USER.
    // `onEnd` is called on the watcher's thread if the init ends without Stop. All processes of the board
    // have ended then.
    ProcessTree(Watcher &watcher, const std::vector<std::string> &environment,
                std::function<void(BoardEnd)> onEnd);
    ~ProcessTree() { Stop(); }

    void Boot(const std::string &root, int networkSpace); // throws std::runtime_error
    void Stop();                                          // every process of the board ends
    bool Running() const;
    pid_t InitPid() const; // of process 1 inside, as the PC side sees it; -1: the board is off

    // Throws std::runtime_error if the board is off or the process cannot be started.
    std::shared_ptr<InsideProcess> Start(const ProcessRequest &request);
    // In BusyBox's shell inside the board; not recorded. The shell is killed when the time runs out.
    RunResult Run(const std::string &command, Milliseconds limit);
    // A program with the caller's own standard input and output. Returns its status as ExitStatus.
    int RunForeground(const ProcessRequest &request);

    const std::vector<std::string> &Environment() const { return environment_; }

private:
    void Receive();
    void Gone();
    void Close();

    Watcher &watcher_;
    const std::vector<std::string> environment_;
    const std::function<void(BoardEnd)> onEnd_;
    mutable std::mutex lock_; // of the members below
    ledboard::UniqueFd channel_;
    pid_t init_ = -1;
    std::uint32_t lastId_ = 0;
    std::map<std::uint32_t, std::shared_ptr<InsideProcess>> processes_;
};

} // namespace board
