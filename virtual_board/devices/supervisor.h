// SPDX-License-Identifier: MIT
// virtual_board/devices/supervisor.h: listens on 127.0.0.1:6666 inside the board, where the daemon sends its
// heartbeat.
#pragma once

#include "common/unique_fd.h"
#include "machine/board_network.h"
#include "machine/power.h"
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
    Supervisor(Watcher &watcher, PowerMutex &power, const BoardNetwork &network, bool wanted)
        : watcher_(watcher), power_(power), network_(network), wanted_(wanted)
    {
    }
    ~Supervisor() { Close(); }

    // true: from now on, and after every boot. false: the listener and every connection are closed.
    void Listen(bool on);
    void PowerOn(const PowerLock &); // the board's loopback interface is up
    void PowerOff(const PowerLock &);

    std::vector<Heartbeat> Heartbeats() const; // oldest first, since the start or the last Forget
    void Forget();

private:
    void Open();
    void Close();
    void Accept();
    void Receive(int fd, unsigned connection);

    Watcher &watcher_;
    PowerMutex &power_;
    const BoardNetwork &network_;
    bool wanted_; // guarded by the power lock, like the two below
    bool powered_ = false;
    ledboard::UniqueFd listener_;
    std::map<int, ledboard::UniqueFd> connections_; // guarded by the watcher's Lock, like the two below
    unsigned lastConnection_ = 0;
    std::vector<Heartbeat> heartbeats_;
};

} // namespace board
