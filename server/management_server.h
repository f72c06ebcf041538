// SPDX-License-Identifier: MIT
// server/management_server.h: the server: accepts boards on a TCP port and operators on a local socket. One
// event loop, one thread; only digests of files are computed on another.
#pragma once

#include "boards.h"

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

#include <set>
#include <string>

namespace server
{

struct ServerOptions {
    std::string address = "0.0.0.0";
    std::uint16_t port = 8990;
    std::string control;         // path of the local socket
    std::set<std::string> users; // who may log in; empty: everybody
    bool quiet = false;
};

class ManagementServer
{
public:
    explicit ManagementServer(ServerOptions options); // listens; throws std::system_error, std::runtime_error
    ~ManagementServer();
    ManagementServer(const ManagementServer &) = delete;
    ManagementServer &operator=(const ManagementServer &) = delete;

    void Run(); // until SIGINT or SIGTERM

private:
    void ListenForBoards();
    void ListenForOperators();
    asio::awaitable<void> AcceptBoards();
    asio::awaitable<void> AcceptOperators();
    asio::awaitable<void> ServeBoard(std::shared_ptr<BoardLink> link);
    void Log(const std::string &line) const;

    ServerOptions options_;
    asio::io_context loop_{1};
    asio::ip::tcp::acceptor acceptor_{loop_};
    asio::local::stream_protocol::acceptor control_{loop_};
    Boards boards_{loop_.get_executor()};
};

} // namespace server
