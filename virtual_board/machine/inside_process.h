// SPDX-License-Identifier: MIT
// virtual_board/machine/inside_process.h: the board's process tree: boots its init, starts processes below
// it, learns how they end.
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
    unsigned softFileLimit = 0;
    bool newSession = true;
    int descriptors[3] = {-1, -1, -1}; // standard input, output, error; -1: /dev/null. The caller keeps them.
};

// One process inside the board. Thread-safe.
class InsideProcess
{
public:
    bool Running() const;
    bool Ended() const; // its status is known
    int Status() const; // wait status; -1 while it runs, or when the board went down under it
    pid_t Pid() const;  // as the PC side sees it; -1 when it is gone
    bool Signal(int number) const;

private:
    friend class InsideTree;
    mutable std::mutex lock_;
    ledboard::UniqueFd descriptor_; // of the process
    pid_t pid_ = -1;
    bool started_ = false;
    bool ended_ = false;
    int status_ = -1;
    int error_ = 0;
};

enum class BoardEnd { Crashed, Rebooted, PoweredOff };

class InsideTree
{
public:
    // `onEnd` is called on the watcher's thread when the init is gone without Stop, with every process of the
    // board gone too.
    InsideTree(Watcher &watcher, std::function<void(BoardEnd)> onEnd)
        : watcher_(watcher), onEnd_(std::move(onEnd))
    {
    }
    ~InsideTree() { Stop(); }

    void Boot(const std::string &root, int networkSpace); // throws std::runtime_error
    void Stop();                                          // every process of the board ends
    bool Running() const;
    pid_t InitPid() const;

    // Throws std::runtime_error when the board is down or the process cannot be started.
    std::shared_ptr<InsideProcess> Start(const ProcessRequest &request);

private:
    void Receive();
    void Gone();
    void Close();

    Watcher &watcher_;
    std::function<void(BoardEnd)> onEnd_;
    mutable std::mutex lock_;
    ledboard::UniqueFd channel_;
    pid_t init_ = -1;
    std::uint32_t lastId_ = 0;
    std::map<std::uint32_t, std::shared_ptr<InsideProcess>> processes_;
};

} // namespace board
