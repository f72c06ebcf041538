// SPDX-License-Identifier: MIT
#include "program/steering_socket.h"

#include "machine/errors.h"
#include "machine/pc_side.h"
#include "program/board_state.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

namespace board
{

using ledboard::UniqueFd;
using nlohmann::json;

namespace
{

constexpr std::size_t kMaxPacket = 65536;
constexpr timeval kPatience{.tv_sec = 5, .tv_usec = 0}; // with a client that was stopped

sockaddr_un SocketAddress()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = std::string(kPcFolder) + "/control";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

std::optional<std::vector<std::string>> WordsOf(const char *bytes, std::size_t size)
{
    const json request = json::parse(bytes, bytes + size, nullptr, false);
    const auto isText = [](const json &word) { return word.is_string(); };
    if (!request.is_array() || !std::ranges::all_of(request, isText))
        return std::nullopt;
    return request.get<std::vector<std::string>>();
}

} // namespace

SteeringSocket::SteeringSocket(VirtualBoard &board)
    : board_(board), listener_(Checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "control socket"))
{
    const sockaddr_un address = SocketAddress();
    unlink(address.sun_path);
    Checked(bind(listener_.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
            "control socket");
    Checked(listen(listener_.Get(), 8), "control socket");
    thread_ = std::thread([this] { Serve(); });
}

SteeringSocket::~SteeringSocket()
{
    stop_ = true;
    shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
    unlink(SocketAddress().sun_path);
}

void SteeringSocket::Serve()
{
    while (!stop_) {
        const int fd = accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0 && errno != EINTR && errno != ECONNABORTED)
            break;
        JoinEnded();
        if (fd < 0)
            continue;
        Handler &handler = handlers_.emplace_back();
        handler.thread = std::thread([this, fd, &handler] {
            Handle(fd);
            handler.ended = true;
        });
    }
    for (Handler &handler : handlers_)
        handler.thread.join();
}

// Before every new one: "log --follow" comes five times a second, perhaps for days.
void SteeringSocket::JoinEnded()
{
    handlers_.remove_if([](Handler &handler) {
        const bool ended = handler.ended;
        if (ended)
            handler.thread.join();
        return ended;
    });
}

void SteeringSocket::Handle(int fd)
{
    const UniqueFd connection(fd);
    for (const int direction : {SO_RCVTIMEO, SO_SNDTIMEO})
        setsockopt(fd, SOL_SOCKET, direction, &kPatience, sizeof kPatience);
    std::vector<char> bytes(kMaxPacket);
    const ssize_t got = recv(fd, bytes.data(), bytes.size(), 0);
    const auto words = WordsOf(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (!words)
        return;
    const Answer answer = Steer(board_, *words);
    const std::string reply =
        DumpJson({{"ok", answer.ok}, {"lines", answer.lines}, {"json", answer.json}, {"from", answer.from}});
    for (std::size_t at = 0; at < reply.size(); at += kMaxPacket) {
        if (send(fd, reply.data() + at, std::min(kMaxPacket, reply.size() - at), MSG_NOSIGNAL) < 0)
            return;
    }
}

Answer AskRunningBoard(const std::vector<std::string> &words)
{
    const UniqueFd fd(Checked(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket"));
    const sockaddr_un address = SocketAddress();
    if (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return Answer::Failure(
            "no board is running here; \"virtual-board shell\" boots one and opens a shell beside it");
    const std::string request = DumpJson(words);
    if (send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
        return Answer::Failure("the board does not listen");
    std::string reply;
    std::vector<char> bytes(kMaxPacket);
    for (ssize_t got = 0; (got = recv(fd.Get(), bytes.data(), bytes.size(), 0)) > 0;)
        reply.append(bytes.data(), static_cast<std::size_t>(got));
    const json answer = json::parse(reply, nullptr, false);
    if (!answer.is_object())
        return Answer::Failure("the board went away");
    return {answer.value("ok", false), answer.value("lines", std::vector<std::string>()),
            answer.value("json", json()), answer.value("from", std::size_t{0})};
}

} // namespace board
