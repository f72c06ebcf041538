// SPDX-License-Identifier: MIT
#include "remote/connection.h"

#include "base/shell.h"
#include "common/text_field.h"
#include "remote/device_context.h"
#include "state/tick.h"

#include <cstring>
#include <string>
#include <utility>

namespace
{

using std::chrono::seconds;

constexpr seconds kQuickPace(1);
constexpr seconds kSlowPace(6);

} // namespace

RemoteConnection::~RemoteConnection()
{
    {
        const Lock lock(s_fd_mutex);
        EndThreads(lock);
        TakeSocket(lock);
    }
    std::unique_lock lock(s_fd_mutex);
    changed_.wait(lock, [this] { return threads_ == 0; });
}

void RemoteConnection::SetAddress(const char *addr, int domainFlag, int port, const char *username)
{
    const Lock lock(s_fd_mutex);
    record_->port = port;
    record_->domainFlag = static_cast<short>(domainFlag);
    ledboard::SetFieldText(record_->addr.domain, ledboard::FieldText(addr, sizeof record_->addr.domain));
    ledboard::SetFieldText(record_->username, ledboard::FieldText(username, sizeof record_->username));
}

wire::AddrParam RemoteConnection::Address() const
{
    wire::AddrParam result{};
    const Lock lock(s_fd_mutex);
    result.domainFlag = record_->domainFlag;
    result.port = record_->port;
    std::memcpy(result.addr, record_->addr.domain, sizeof result.addr);
    std::memcpy(result.username, record_->username, sizeof result.username);
    return result;
}

void RemoteConnection::SetSocket(int fd)
{
    const Lock lock(s_fd_mutex);
    record_->privateFD = fd;
}

int RemoteConnection::Socket() const
{
    const Lock lock(s_fd_mutex);
    return record_->privateFD;
}

void RemoteConnection::SetMonitor(MonitorSession *monitor)
{
    const Lock lock(s_fd_mutex);
    if (monitor == nullptr)
        TakeSocket(lock);
    record_->monitor = monitor;
    monitorIsKnown_ = true;
    changed_.notify_all();
}

MonitorSession *RemoteConnection::Monitor() const
{
    const Lock lock(s_fd_mutex);
    return record_->monitor;
}

MonitorSession RemoteConnection::CopySlot(const MonitorSession &slot) const
{
    const Lock lock(s_fd_mutex);
    return slot;
}

void RemoteConnection::WatchInstead(int fd)
{
    const Lock lock(s_fd_mutex);
    if (record_->monitor != nullptr)
        record_->monitor->fd = fd;
}

void RemoteConnection::WatchSocket()
{
    const Lock lock(s_fd_mutex);
    if (record_->monitor != nullptr)
        record_->monitor->fd = record_->privateFD;
}

void RemoteConnection::Lose()
{
    const Lock lock(s_fd_mutex);
    TakeSocket(lock);
    record_->lockFlag = 0;
}

void RemoteConnection::Forget()
{
    const Lock lock(s_fd_mutex);
    // QUIRK lock-outlives-server: a lock that the server held stays; it would be expected to go, as it does
    // when the connection is lost.
    EndThreads(lock);
    RunShell(std::string("rm ") + g_remoteServerFile);
    StopHeartbeat();
    TakeSocket(lock);
    record_->domainFlag = 0;
    record_->port = 0;
    std::memset(&record_->addr, 0, sizeof record_->addr);
    std::memset(record_->username, 0, sizeof record_->username);
    quickPace_ = true; // what the old server did says nothing about the next one
}

void RemoteConnection::SetQuickPace(bool quick)
{
    const Lock lock(s_fd_mutex);
    quickPace_ = quick;
}

void RemoteConnection::StopHeartbeat()
{
    RemoveFromTick(record_->Heartbeat);
}

void RemoteConnection::RetryLater()
{
    const Lock lock(s_fd_mutex);
    retryAt_ = Clock::now() + kRetryPause;
    changed_.notify_all();
}

bool RemoteConnection::WaitForRetry()
{
    std::unique_lock lock(s_fd_mutex);
    for (;;) {
        if (retriesEnded_)
            return false;
        if (!retryAt_)
            changed_.wait(lock);
        else if (*retryAt_ > Clock::now())
            changed_.wait_until(lock, Clock::time_point(*retryAt_));
        else
            return true;
    }
}

bool RemoteConnection::TakeRetry()
{
    const Lock lock(s_fd_mutex);
    if (!retryAt_ || *retryAt_ > Clock::now())
        return false;
    retryAt_.reset();
    return true;
}

void RemoteConnection::EndRetries()
{
    const Lock lock(s_fd_mutex);
    retriesEnded_ = true;
    changed_.notify_all();
}

ledboard::UniqueFd RemoteConnection::TakeSocket(const Lock &)
{
    if (record_->monitor != nullptr) {
        record_->monitor->valid = 0;
        record_->monitor->fd = -1;
    }
    record_->bufferIndex = 0;
    return ledboard::UniqueFd(std::exchange(record_->privateFD, -1));
}

void RemoteConnection::EndThreads(const Lock &)
{
    ++newest_;
    retryAt_.reset();
    changed_.notify_all();
}

RemoteConnection::Turn::Turn(RemoteConnection *connection) : connection_(*connection)
{
    const Lock lock(connection_.s_fd_mutex);
    connection_.EndThreads(lock);
    ++connection_.threads_;
    number_ = connection_.newest_;
}

RemoteConnection::Turn::~Turn()
{
    const Lock lock(connection_.s_fd_mutex);
    --connection_.threads_;
    if (connection_.working_ == this)
        connection_.working_ = nullptr;
    connection_.changed_.notify_all();
}

bool RemoteConnection::Turn::IsNewest() const
{
    const Lock lock(connection_.s_fd_mutex);
    return number_ == connection_.newest_;
}

bool RemoteConnection::Turn::SleepUntil(Clock::time_point moment) const
{
    std::unique_lock lock(connection_.s_fd_mutex);
    return !connection_.changed_.wait_until(lock, moment, [this] { return number_ != connection_.newest_; });
}

bool RemoteConnection::Turn::KeepPace() const
{
    Clock::time_point moment = Clock::now();
    {
        const Lock lock(connection_.s_fd_mutex);
        if (connection_.lastConnect_)
            moment = *connection_.lastConnect_ + (connection_.quickPace_ ? kQuickPace : kSlowPace);
    }
    return SleepUntil(moment);
}

bool RemoteConnection::Turn::Begin()
{
    std::unique_lock lock(connection_.s_fd_mutex);
    connection_.changed_.wait(lock, [this] {
        return connection_.working_ == nullptr || number_ != connection_.newest_;
    });
    if (number_ != connection_.newest_)
        return false;
    connection_.working_ = this;
    return true;
}

bool RemoteConnection::Turn::BeginLookUp()
{
    std::unique_lock lock(connection_.s_fd_mutex);
    connection_.changed_.wait(lock, [this] {
        return connection_.lookingUp_ == nullptr || number_ != connection_.newest_;
    });
    if (number_ != connection_.newest_)
        return false;
    connection_.lookingUp_ = this;
    connection_.working_ = nullptr;
    connection_.changed_.notify_all();
    return true;
}

bool RemoteConnection::Turn::EndLookUp()
{
    const Lock lock(connection_.s_fd_mutex);
    connection_.lookingUp_ = nullptr;
    connection_.changed_.notify_all();
    if (number_ != connection_.newest_)
        return false;
    connection_.working_ = this; // only a newer turn could have begun meanwhile, and there is none
    return true;
}

bool RemoteConnection::Turn::BeginLogin() const
{
    const Lock lock(connection_.s_fd_mutex);
    if (number_ != connection_.newest_)
        return false;
    connection_.quickPace_ = false; // until the server accepts the login
    connection_.lastConnect_ = Clock::now();
    return true;
}

void RemoteConnection::Turn::RetryLater() const
{
    if (IsNewest())
        connection_.RetryLater();
}

bool RemoteConnection::Turn::HandOver(ledboard::UniqueFd *socket) const
{
    std::unique_lock lock(connection_.s_fd_mutex);
    connection_.changed_.wait(lock, [this] {
        return connection_.monitorIsKnown_ || number_ != connection_.newest_;
    });
    if (number_ != connection_.newest_)
        return false;
    connection_.retryAt_.reset();
    DeviceContext *const record = connection_.record_;
    if (record->monitor != nullptr) {
        record->privateFD = socket->Release();
        record->monitor->fd = record->privateFD;
        record->monitor->valid = 1;
    }
    return true;
}
