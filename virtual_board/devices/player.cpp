// SPDX-License-Identifier: MIT
#include "devices/player.h"

#include "common/unique_fd.h"
#include "records/player_records.h"
#include "records/session_records.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

namespace board
{

using ledboard::UniqueFd;

namespace
{

constexpr Milliseconds kPauseBetweenTries{40};

} // namespace

const char *PlayerCodeName(std::uint32_t code)
{
    static constexpr std::array<const char *, 14> kNames = {"",
                                                            "SS_CMD_RECV_PROGRAM",
                                                            "SS_CMD_RECV_END",
                                                            "SS_CMD_LUMINANCE_FILE",
                                                            "SS_CMD_SCREEN_SIZE",
                                                            "SS_CMD_BRIGHTNESS",
                                                            "SS_CMD_UPDATE_SETTING_FILE",
                                                            "SS_CMD_USB_STATE",
                                                            "SS_CMD_SMART_SETTING",
                                                            "SS_CMD_NETWORK_ERROR",
                                                            "SS_CMD_SLANT_LINE",
                                                            "SS_CMD_SCREEN_ON_OFF",
                                                            "SS_CMD_RECV_NO_FINISH",
                                                            "SS_CMD_REBOOT"};
    return code < kNames.size() ? kNames[code] : "";
}

Player::Player(Watcher &watcher, PowerMutex &power, const BoardNetwork &network, bool wanted)
    : watcher_(watcher), power_(power), network_(network), wanted_(wanted)
{
    watcher_.AddTick([this] { Tick(); });
}

void Player::Connect(bool on)
{
    const PowerLock power(power_);
    {
        const std::lock_guard guard(watcher_.Lock());
        wanted_ = on;
    }
    if (on)
        PowerOn(power);
    else
        PowerOff(power);
}

void Player::PowerOn(const PowerLock &)
{
    const std::lock_guard guard(watcher_.Lock());
    trying_ = wanted_;
}

void Player::PowerOff(const PowerLock &)
{
    Disconnect();
}

void Player::Disconnect()
{
    int fd = -1;
    {
        const std::lock_guard guard(watcher_.Lock());
        trying_ = false;
        fd = socket_.Get();
    }
    if (fd < 0)
        return;
    watcher_.Remove(fd);
    const std::lock_guard guard(watcher_.Lock());
    Drop();
}

// On the watcher's thread: the next try to log in, when it is due.
void Player::Tick()
{
    {
        const std::lock_guard guard(watcher_.Lock());
        const auto now = std::chrono::steady_clock::now();
        if (!trying_ || socket_.Valid() || now < nextTry_)
            return;
        nextTry_ = now + kPauseBetweenTries;
    }
    UniqueFd fresh = network_.Socket(AF_INET, SOCK_STREAM);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wire::kSessionPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const wire::LoginPacket login{sizeof(wire::LoginPacket), wire::kSessionPlayer};
    if (!fresh.Valid() || connect(fresh.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        send(fresh.Get(), &login, sizeof login, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof login))
        return;
    const int fd = fresh.Get();
    const std::lock_guard guard(watcher_.Lock());
    if (!trying_)
        return;
    socket_ = std::move(fresh);
    watcher_.Add(fd, [this] { Receive(); });
}

void Player::Drop()
{
    socket_.Reset();
    loggedIn_ = false;
    pending_.clear();
}

void Player::Receive()
{
    std::array<char, 4096> bytes;
    const std::lock_guard guard(watcher_.Lock());
    const ssize_t got = recv(socket_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got < 0 && errno == EAGAIN)
        return;
    if (got <= 0) {
        watcher_.Remove(socket_.Get());
        Drop();
        return;
    }
    pending_.append(bytes.data(), static_cast<std::size_t>(got));
    for (;;) {
        const auto length = wire::Read<wire::U32>(wire::BytesAt(pending_.data(), pending_.size()));
        if (!length)
            return;
        const std::uint32_t size = *length;
        // A length that no message has would never end: everything there is becomes one odd message.
        const bool odd = size < sizeof(wire::LoginReply) || size > sizeof(wire::PlayerValueMessage);
        if (!odd && pending_.size() < size)
            return;
        Take(odd ? pending_.size() : size);
    }
}

void Player::Take(std::size_t length)
{
    PlayerMessage message;
    message.bytes = pending_.substr(0, length);
    message.at = std::chrono::steady_clock::now();
    pending_.erase(0, length);
    const wire::Bytes bytes = wire::BytesAt(message.bytes.data(), message.bytes.size());
    if (const auto reply = wire::Read<wire::LoginReply>(bytes);
        reply && length == sizeof *reply && !loggedIn_) {
        loggedIn_ = reply->status == wire::kLoginAccepted;
        return;
    }
    if (const auto head = wire::Read<wire::PlayerMessage>(bytes)) {
        message.code = head->code;
        message.kind = head->kind;
        message.name = PlayerCodeName(message.code);
    }
    if (const auto whole = wire::Read<wire::PlayerValueMessage>(bytes))
        message.value = whole->value;
    messages_.push_back(std::move(message));
}

bool Player::LoggedIn() const
{
    const std::lock_guard guard(watcher_.Lock());
    return loggedIn_;
}

bool Player::Wanted() const
{
    const std::lock_guard guard(watcher_.Lock());
    return wanted_;
}

bool Player::WaitForLogin(Milliseconds limit) const
{
    return watcher_.WaitFor([this] { return LoggedIn(); }, limit);
}

bool Player::Send(std::uint32_t code, std::optional<std::uint32_t> value)
{
    wire::PlayerValueMessage message{{sizeof(wire::PlayerMessage), wire::kPlayerKind, code},
                                     value.value_or(0)};
    if (value)
        message.message.length = sizeof message;
    const std::uint32_t length = message.message.length;
    const std::lock_guard guard(watcher_.Lock());
    return loggedIn_ && send(socket_.Get(), &message, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
}

std::vector<PlayerMessage> Player::Messages() const
{
    const std::lock_guard guard(watcher_.Lock());
    return messages_;
}

bool Player::WaitForMessage(std::uint32_t code, std::size_t count, Milliseconds limit) const
{
    const auto enough = [&] {
        const auto messages = Messages();
        return static_cast<std::size_t>(std::ranges::count(messages, code, &PlayerMessage::code)) >= count;
    };
    return watcher_.WaitFor(enough, limit);
}

void Player::Forget()
{
    const std::lock_guard guard(watcher_.Lock());
    messages_.clear();
}

} // namespace board
