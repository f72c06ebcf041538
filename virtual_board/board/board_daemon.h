// SPDX-License-Identifier: MIT
// virtual_board/board/board_daemon.h: the daemon on the board: starts, signals and watches it. Every function
// may be called from any thread.
#pragma once

#include "board/board_record.h"
#include "devices/player.h"
#include "machine/board_root.h"
#include "machine/power.h"
#include "machine/process_tree.h"

#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>

namespace board
{

// What the daemon needs of its board.
struct DaemonPlace {
    const Options &options;
    PowerMutex &power;
    Watcher &watcher;
    BoardRoot &root;
    ProcessTree &processes;
    BoardRecord &record;
    Player &player;
};

class BoardDaemon
{
public:
    explicit BoardDaemon(const DaemonPlace &place) : at_(place) {}

    // Returns when the daemon listens (and the player is logged in, if there is one) or has ended by itself.
    // A daemon that was built anew is copied into the board first. Throws std::runtime_error.
    void Start();
    void Start(const PowerLock &);
    void Restart();
    bool Signal(int signal);
    bool Kill(int signal = SIGKILL);                            // waits for the end; false: it did not end
    bool WaitForExit(Milliseconds limit = kDefaultLimit) const; // its last log lines have been read then

    bool Running() const;
    pid_t Pid() const;                   // as the PC side sees it; -1: not running
    bool Listens() const;                // UDP 8878 and TCP 8870 are open
    std::optional<int> Exit() const;     // as ExitStatus, once it has ended
    std::size_t OpenDescriptors() const; // 0: not running

private:
    std::shared_ptr<InsideProcess> Process() const;
    void Copy();
    void Launch();

    const DaemonPlace at_;
    std::filesystem::file_time_type copied_{}; // of the program that was copied; guarded by the power lock
    mutable std::mutex lock_;                  // of the one below
    std::shared_ptr<InsideProcess> process_;
};

} // namespace board
