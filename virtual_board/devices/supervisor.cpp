// SPDX-License-Identifier: MIT
#include "devices/supervisor.h"

#include "common/unique_fd.h"
#include "machine/errors.h"
#include "records/heartbeat_record.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

namespace board
{

using ledboard::UniqueFd;

void Supervisor::Listen(bool on)
{
    const PowerLock power(power_);
    wanted_ = on;
    Close();
    if (wanted_ && powered_)
        Open();
}

void Supervisor::PowerOn(const PowerLock &)
{
    powered_ = true;
    if (wanted_)
        Open();
}

void Supervisor::PowerOff(const PowerLock &)
{
    powered_ = false;
    Close();
}

void Supervisor::Open()
{
    listener_ = network_.Socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK);
    Checked(listener_.Get(), "supervisor");
    const int one = 1;
    setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wire::kSupervisorPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Checked(bind(listener_.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address),
            "supervisor's port");
    Checked(listen(listener_.Get(), 5), "supervisor's port");
    watcher_.Add(listener_.Get(), [this] { Accept(); });
}

void Supervisor::Close()
{
    if (listener_.Valid())
        watcher_.Remove(listener_.Get());
    listener_.Reset();
    std::map<int, UniqueFd> connections;
    {
        const std::lock_guard guard(watcher_.Lock());
        connections.swap(connections_);
    }
    for (const auto &[fd, connection] : connections)
        watcher_.Remove(fd);
}

void Supervisor::Accept()
{
    UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!connection.Valid())
        return;
    const int fd = connection.Get();
    const std::lock_guard guard(watcher_.Lock());
    const unsigned number = ++lastConnection_;
    connections_[fd] = std::move(connection);
    watcher_.Add(fd, [this, fd, number] { Receive(fd, number); });
}

void Supervisor::Receive(int fd, unsigned connection)
{
    std::array<char, 4096> bytes;
    const ssize_t got = recv(fd, bytes.data(), bytes.size(), 0);
    if (got < 0 && errno == EAGAIN)
        return;
    const std::lock_guard guard(watcher_.Lock());
    if (got > 0) {
        heartbeats_.push_back({connection, std::string(bytes.data(), static_cast<std::size_t>(got)),
                               std::chrono::steady_clock::now()});
        return;
    }
    watcher_.Remove(fd);
    connections_.erase(fd);
}

std::vector<Heartbeat> Supervisor::Heartbeats() const
{
    const std::lock_guard guard(watcher_.Lock());
    return heartbeats_;
}

void Supervisor::Forget()
{
    const std::lock_guard guard(watcher_.Lock());
    heartbeats_.clear();
}

} // namespace board
