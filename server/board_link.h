// SPDX-License-Identifier: MIT
// server/board_link.h: one TCP connection of a board: greeting, login, packets in both directions. Event loop
// thread only.
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

// The connection ended; the board is expected to connect again.
class LinkLost : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

struct BoardLogin {
    std::string id; // without the zeros at its end
    std::string username;
};

class BoardLink : public std::enable_shared_from_this<BoardLink>
{
public:
    explicit BoardLink(asio::ip::tcp::socket socket);

    asio::awaitable<BoardLogin> ReceiveLogin();   // throws LinkLost, BadPacket
    asio::awaitable<wire::Bytes> ReceivePacket(); // valid until the next call; throws LinkLost, BadPacket

    void Send(std::string packet); // never waits; a failure closes the link
    void Close();
    bool Closed() const { return closed_; }

    // Replies of the remote session: Boards puts them here, the one push that runs takes them. Throws
    // BadPacket if nobody has taken the earlier ones.
    void PutReply(Reply reply);
    using Deadline = std::chrono::steady_clock::time_point;
    // nullopt if woken by Wake. Throws LinkLost, and BadPacket if no reply comes before the deadline.
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
    std::string received_; // the bytes from handled_ on are not handled yet
    std::size_t handled_ = 0;
    std::deque<std::string> sending_;
    std::deque<Reply> replies_;
    asio::steady_timer replyCame_; // expires at the waiter's deadline; cancelled to wake it
    bool closed_ = false;
    std::chrono::steady_clock::time_point lastHeard_;
};

} // namespace server
