// SPDX-License-Identifier: MIT
// server/boards.h: the boards that are or were connected. Event loop thread only.
#pragma once

#include "board_link.h"
#include "records/discovery_records.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace server
{

struct BoardEntry {
    std::string id;
    std::string username;
    std::string peer;                            // address and port of its last connection
    std::shared_ptr<BoardLink> link;             // null if it is not connected
    std::chrono::system_clock::time_point since; // of its last login or loss
    std::chrono::system_clock::time_point heard;
    std::uint64_t logins = 0;
    std::uint64_t heartbeats = 0;
    std::optional<wire::DeviceRecord> record;
    std::string push; // what its push is doing; empty: no push runs
};

class Boards
{
public:
    explicit Boards(const asio::any_io_executor &executor);

    // A board has one link at a time: an older link with the same identifier is closed.
    BoardEntry &LogIn(const BoardLogin &login, const std::shared_ptr<BoardLink> &link);
    void Lose(const BoardLink &link);

    // Stores what a board reports about itself and passes its replies to the link. Throws BadPacket.
    void TakePacket(const std::shared_ptr<BoardLink> &link, wire::Bytes packet);

    BoardEntry *Find(const std::string &id); // null: never seen
    std::vector<std::string> ConnectedIds() const;
    nlohmann::json List() const; // ordered by identifier

    // Waits until something may have changed: a login, or Notify.
    asio::awaitable<void> Change();
    void Notify();

    // Runs forever and closes the links of boards that have been silent for too long.
    asio::awaitable<void> WatchSilence();

private:
    void ForgetOldest();

    std::map<std::string, BoardEntry> boards_;
    asio::steady_timer changed_;
    asio::steady_timer sweep_;
};

} // namespace server
