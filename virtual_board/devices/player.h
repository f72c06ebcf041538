// SPDX-License-Identifier: MIT
// virtual_board/devices/player.h: the player's end of its session with the daemon: logs in with sub-type 3 on
// 127.0.0.1:8870 inside the board, records what it is told, says what it is asked to say, comes back when the
// daemon does.
#pragma once

#include "common/unique_fd.h"
#include "machine/board_network.h"
#include "machine/power.h"
#include "machine/watcher.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace board
{

struct PlayerMessage {
    std::uint32_t code = 0;
    std::optional<std::uint32_t> value;
    std::uint32_t kind = 0;
    std::string name;  // such as "SS_CMD_RECV_END"
    std::string bytes; // as they came
    std::chrono::steady_clock::time_point at;
};

const char *PlayerCodeName(std::uint32_t code); // "" for an unknown code

class Player
{
public:
    Player(Watcher &watcher, PowerMutex &power, const BoardNetwork &network, bool wanted);
    ~Player() { Disconnect(); }

    // true: it tries from now on until the daemon answers, and again after every start of the daemon.
    void Connect(bool on);
    void PowerOn(const PowerLock &); // the daemon listens
    void PowerOff(const PowerLock &);

    bool Wanted() const;
    bool LoggedIn() const;
    bool WaitForLogin(Milliseconds limit = kDefaultLimit) const;
    bool Send(std::uint32_t code, std::optional<std::uint32_t> value = {}); // false: it is not logged in
    std::vector<PlayerMessage> Messages() const; // oldest first, since the start or the last Forget
    // At least `count` messages with this code.
    bool WaitForMessage(std::uint32_t code, std::size_t count = 1, Milliseconds limit = kDefaultLimit) const;
    void Forget();

private:
    void Tick();
    void Receive();
    void Take(std::size_t length);
    void Disconnect();
    void Drop();

    Watcher &watcher_;
    PowerMutex &power_;
    const BoardNetwork &network_;
    ledboard::UniqueFd socket_; // guarded by the watcher's Lock, like everything below
    bool wanted_;
    bool trying_ = false;
    bool loggedIn_ = false;
    std::chrono::steady_clock::time_point nextTry_{};
    std::string pending_;
    std::vector<PlayerMessage> messages_;
};

} // namespace board
