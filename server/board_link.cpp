// SPDX-License-Identifier: MIT
#include "board_link.h"

#include "common/text_field.h"

#include <asio/buffer.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace server
{

namespace
{

constexpr std::size_t kReceiveSize = 16384;
constexpr std::size_t kMaxReplies = 4096; // that no push has taken; a board does not reply unasked

std::string PeerOf(const asio::ip::tcp::socket &socket)
{
    asio::error_code error;
    const auto endpoint = socket.remote_endpoint(error);
    return error ? "?" : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

bool IsPrintable(const std::string &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char character) { return character >= ' ' && character <= '~'; });
}

} // namespace

BoardLink::BoardLink(asio::ip::tcp::socket socket)
    : socket_(std::move(socket)), peer_(PeerOf(socket_)), replyCame_(socket_.get_executor()),
      lastHeard_(std::chrono::steady_clock::now())
{
    asio::error_code ignored;
    socket_.set_option(asio::ip::tcp::no_delay(true), ignored);
    // Ends the link of a board that has gone: one whose login was refused sends nothing more.
    socket_.set_option(asio::socket_base::keep_alive(true), ignored);
}

asio::awaitable<void> BoardLink::ReceiveMore()
{
    received_.erase(0, std::exchange(handled_, 0));
    const std::size_t held = received_.size();
    received_.resize(held + kReceiveSize);
    asio::error_code error;
    const std::size_t count =
        co_await socket_.async_read_some(asio::buffer(received_.data() + held, kReceiveSize),
                                         asio::redirect_error(asio::use_awaitable, error));
    received_.resize(held + count);
    if (error || closed_)
        throw LinkLost("the connection ended");
    lastHeard_ = std::chrono::steady_clock::now();
}

asio::awaitable<wire::Bytes> BoardLink::ReceivePacket()
{
    for (;;) {
        const wire::Bytes held = wire::BytesAt(received_.data(), received_.size()).subspan(handled_);
        if (const auto length = wire::Read<wire::U32>(held)) {
            if (*length < sizeof(wire::RemotePrefix) || *length > wire::kRemoteBufferSize)
                throw BadPacket("a packet with a length of " + std::to_string(*length));
            if (*length <= held.size()) {
                handled_ += *length;
                co_return held.first(*length);
            }
        }
        co_await ReceiveMore();
    }
}

asio::awaitable<BoardLogin> BoardLink::ReceiveLogin()
{
    while (received_.empty())
        co_await ReceiveMore();
    if (static_cast<std::uint8_t>(received_.front()) != wire::kRemoteGreeting)
        throw BadPacket("not a board's greeting");
    handled_ = 1;
    const wire::Bytes packet = co_await ReceivePacket();
    const auto login = wire::Read<wire::RemoteLoginPacket>(packet);
    if (!login || login->prefix.command != wire::kRemoteLogin)
        throw BadPacket("not a login");
    const std::string id(ledboard::FieldText(login->id));
    if (!IsPrintable(id))
        throw BadPacket("an identifier that is not printable");
    id_ = id;
    co_return BoardLogin{id_, std::string(ledboard::FieldText(login->username))};
}

void BoardLink::Send(std::string packet)
{
    if (closed_)
        return;
    sending_.push_back(std::move(packet));
    if (sending_.size() == 1)
        WriteNext();
}

void BoardLink::WriteNext()
{
    asio::async_write(socket_, asio::buffer(sending_.front()),
                      [self = shared_from_this()](const asio::error_code &error, std::size_t) {
                          if (error) {
                              self->Close();
                              return;
                          }
                          self->sending_.pop_front();
                          if (!self->sending_.empty())
                              self->WriteNext();
                      });
}

void BoardLink::Close()
{
    closed_ = true;
    asio::error_code ignored;
    socket_.close(ignored);
    replyCame_.cancel();
}

void BoardLink::PutReply(Reply reply)
{
    if (replies_.size() == kMaxReplies)
        throw BadPacket("replies without requests");
    replies_.push_back(std::move(reply));
    replyCame_.cancel();
}

void BoardLink::Wake()
{
    replyCame_.cancel();
}

asio::awaitable<std::optional<Reply>> BoardLink::NextReply(Deadline deadline)
{
    if (replies_.empty() && !closed_) {
        asio::error_code cancelled;
        replyCame_.expires_at(deadline);
        co_await replyCame_.async_wait(asio::redirect_error(asio::use_awaitable, cancelled));
        if (!cancelled && replies_.empty() && !closed_)
            throw BadPacket("the board does not answer");
    }
    if (!replies_.empty()) {
        Reply reply = std::move(replies_.front());
        replies_.pop_front();
        co_return reply;
    }
    if (closed_)
        throw LinkLost("the connection ended");
    co_return std::nullopt;
}

} // namespace server
