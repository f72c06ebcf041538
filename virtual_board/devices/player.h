// SPDX-License-Identifier: MIT
// virtual_board/devices/player.h: the player's end of its session with the daemon: logs in with sub-type 3 on
// 127.0.0.1:8870 inside the board, records what it is told, says what it is asked to say, comes back when the
// daemon does.
#pragma once

#include "common/unique_fd.h"
#include "machine/board_network.h"
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
    Player(Watcher &watcher, const BoardNetwork &network);
    ~Player() { Connect(false); }

    void Connect(bool on); // true: from now on try until the daemon answers
    void Tick();           // on the watcher's thread, again and again: makes the next try when one is due
    bool LoggedIn() const;
    bool Send(std::uint32_t code, std::optional<std::uint32_t> value = {}); // false: no session
    bool SendBytes(const std::string &bytes);
    std::vector<PlayerMessage> Messages() const;
    void Forget();

private:
    void Receive();
    void Take(std::size_t length);
    void Drop();

    Watcher &watcher_;
    const BoardNetwork &network_;
    ledboard::UniqueFd socket_; // guarded by the watcher's Lock, like everything below
    bool wanted_ = false;
    bool loggedIn_ = false;
    std::chrono::steady_clock::time_point nextTry_{};
    std::string pending_;
    std::vector<PlayerMessage> messages_;
};

} // namespace board
