// SPDX-License-Identifier: MIT
// virtual_board/devices/supervisor.h: listens on 127.0.0.1:6666 inside the board, where the daemon sends its
// heartbeat.
#pragma once

#include "common/unique_fd.h"
#include "machine/board_network.h"
#include "machine/watcher.h"

#include <map>
#include <string>
#include <vector>

namespace board
{

struct Heartbeat {
    unsigned connection; // 1 for the first connection after boot, and so on
    std::string bytes;   // as one receive gave them
    std::chrono::steady_clock::time_point at;
};

class Supervisor
{
public:
    Supervisor(Watcher &watcher, const BoardNetwork &network) : watcher_(watcher), network_(network) {}
    ~Supervisor() { Listen(false); }

    // false: the listener and every connection are closed.
    void Listen(bool on);
    std::vector<Heartbeat> Heartbeats() const;
    void Forget();

private:
    void Accept();
    void Receive(int fd, unsigned connection);

    Watcher &watcher_;
    const BoardNetwork &network_;
    ledboard::UniqueFd listener_;
    std::map<int, ledboard::UniqueFd> connections_; // guarded by the watcher's Lock, like the two below
    unsigned lastConnection_ = 0;
    std::vector<Heartbeat> heartbeats_;
};

} // namespace board
