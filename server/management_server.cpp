// SPDX-License-Identifier: MIT
#include "management_server.h"

#include "operator_session.h"

#include <asio/co_spawn.hpp>
#include <asio/connect.hpp>
#include <asio/detached.hpp>
#include <asio/redirect_error.hpp>
#include <asio/signal_set.hpp>
#include <asio/use_awaitable.hpp>
#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

namespace server
{

namespace
{

using namespace std::chrono_literals;

constexpr auto kLoginLimit = 10s;
constexpr auto kAcceptPause = 100ms; // when descriptors have run out

// True if a server answers on the local socket.
bool IsServed(asio::io_context &loop, const std::string &path)
{
    asio::local::stream_protocol::socket probe(loop);
    asio::error_code error;
    probe.connect(asio::local::stream_protocol::endpoint(path), error);
    return !error;
}

asio::awaitable<void> Pause()
{
    asio::steady_timer timer(co_await asio::this_coro::executor, kAcceptPause);
    co_await timer.async_wait(asio::use_awaitable);
}

// Closes the link if it has not logged in within the limit.
asio::awaitable<void> LimitLogin(std::shared_ptr<BoardLink> link, std::shared_ptr<bool> loggedIn)
{
    asio::steady_timer timer(co_await asio::this_coro::executor, kLoginLimit);
    co_await timer.async_wait(asio::use_awaitable);
    if (!*loggedIn)
        link->Close();
}

} // namespace

ManagementServer::ManagementServer(ServerOptions options) : options_(std::move(options))
{
    ListenForBoards();
    ListenForOperators();
}

ManagementServer::~ManagementServer()
{
    unlink(options_.control.c_str());
}

void ManagementServer::ListenForBoards()
{
    const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(options_.address), options_.port);
    acceptor_.open(endpoint.protocol());
    acceptor_.set_option(asio::ip::tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    acceptor_.listen();
}

void ManagementServer::ListenForOperators()
{
    if (IsServed(loop_, options_.control))
        throw std::runtime_error("another ledboard-server listens on " + options_.control);
    if (std::filesystem::is_socket(options_.control))
        unlink(options_.control.c_str()); // left by a server that was killed
    control_.open();
    const mode_t before = umask(0177); // only the owner can connect, from the first moment on
    asio::error_code error;
    control_.bind(asio::local::stream_protocol::endpoint(options_.control), error);
    umask(before);
    if (error)
        throw std::system_error(error, options_.control);
    control_.listen();
}

void ManagementServer::Run()
{
    asio::signal_set signals(loop_, SIGINT, SIGTERM);
    signals.async_wait([this](const asio::error_code &, int) { loop_.stop(); });
    asio::co_spawn(loop_, AcceptBoards(), asio::detached);
    asio::co_spawn(loop_, AcceptOperators(), asio::detached);
    asio::co_spawn(loop_, boards_.WatchSilence(), asio::detached);
    Log(fmt::format("listening for boards on {}:{}, for operators on {}", options_.address,
                    acceptor_.local_endpoint().port(), options_.control));
    loop_.run();
    Log("stopped");
}

asio::awaitable<void> ManagementServer::AcceptBoards()
{
    for (;;) {
        asio::error_code error;
        asio::ip::tcp::socket socket =
            co_await acceptor_.async_accept(asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_await Pause();
            continue;
        }
        asio::co_spawn(loop_, ServeBoard(std::make_shared<BoardLink>(std::move(socket))), asio::detached);
    }
}

asio::awaitable<void> ManagementServer::AcceptOperators()
{
    for (;;) {
        asio::error_code error;
        asio::local::stream_protocol::socket socket =
            co_await control_.async_accept(asio::redirect_error(asio::use_awaitable, error));
        if (error) {
            co_await Pause();
            continue;
        }
        asio::co_spawn(loop_, ServeOperator(boards_, std::move(socket)), asio::detached);
    }
}

asio::awaitable<void> ManagementServer::ServeBoard(std::shared_ptr<BoardLink> link)
{
    std::string end;
    const auto loggedIn = std::make_shared<bool>(false);
    asio::co_spawn(loop_, LimitLogin(link, loggedIn), asio::detached);
    try {
        const BoardLogin login = co_await link->ReceiveLogin();
        *loggedIn = true;
        const bool accepted = options_.users.empty() || options_.users.contains(login.username);
        link->Send(MakeLoginAnswer(accepted));
        if (accepted) {
            boards_.LogIn(login, link);
            Log(fmt::format("{}: logged in from {} as {:?}", login.id, link->PeerText(), login.username));
        } else {
            Log(fmt::format("{}: user {:?} refused, {}", login.id, login.username, link->PeerText()));
        }
        for (;;) {
            const wire::Bytes packet = co_await link->ReceivePacket();
            boards_.TakePacket(link, packet);
        }
    } catch (const std::exception &error) {
        end = error.what();
    }
    *loggedIn = true;
    link->Close();
    boards_.Lose(*link);
    Log(fmt::format("{}: {}, {}", link->Id().empty() ? "?" : link->Id(), end, link->PeerText()));
}

void ManagementServer::Log(const std::string &line) const
{
    if (options_.quiet)
        return;
    std::fputs((line + "\n").c_str(), stderr);
}

} // namespace server
