// SPDX-License-Identifier: MIT
// server/board_link.h: one connection of a board: greeting, login, and the packets both ways. Event loop
// only.
#pragma once

#include "packets.h"

#include <asio/awaitable.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace server
{

// The connection is gone; the board is expected back.
class LinkLost : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct BoardLogin {
    std::string id; // all of wire::kDeviceIdSize bytes' text
    std::string username;
};

class BoardLink : public std::enable_shared_from_this<BoardLink>
{
public:
    explicit BoardLink(asio::ip::tcp::socket socket);

    asio::awaitable<BoardLogin> ReceiveLogin();   // throws LinkLost, BadPacket
    asio::awaitable<wire::Bytes> ReceivePacket(); // good until the next call; throws LinkLost, BadPacket

    void Send(std::string packet); // never waits; a failure closes the link
    void Close();
    bool Closed() const { return closed_; }

    // Replies of the remote session: put here by whoever receives the packets, taken by the one push that is
    // under way.
    void PutReply(Reply reply);
    using Deadline = std::chrono::steady_clock::time_point;
    // Nothing when woken by Wake. Throws LinkLost; without a reply until the deadline BadPacket.
    asio::awaitable<std::optional<Reply>> NextReply(Deadline deadline);
    void Wake();

    const std::string &Id() const { return id_; }
    std::string PeerText() const { return peer_; }
    std::chrono::steady_clock::time_point LastHeard() const { return lastHeard_; }

private:
    asio::awaitable<void> ReceiveMore();
    void WriteNext();

    asio::ip::tcp::socket socket_;
    std::string peer_;
    std::string id_;
    std::string received_; // not yet handled from handled_ on
    std::size_t handled_ = 0;
    std::deque<std::string> sending_;
    std::deque<Reply> replies_;
    asio::steady_timer replyCame_; // expires at the waiter's deadline; cancelled to wake it
    bool closed_ = false;
    std::chrono::steady_clock::time_point lastHeard_;
};

} // namespace server
