// SPDX-License-Identifier: MIT
// src/remote/connection.h: the board's one connection to its remote server: the server's address, the socket,
// the work loop's slot for it, and which connect thread may log in.
//
// One private lock guards all of it, and every function takes that lock itself. Any thread, except where a
// comment names the main thread.
#pragma once

#include "common/unique_fd.h"
#include "records/discovery_records.h"
#include "state/monitor_slots.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>

struct DeviceContext;

class RemoteConnection
{
public:
    class Turn;

    // Works on the address fields, privateFD, monitor, bufferIndex and lockFlag of the record, which outlives
    // this object.
    explicit RemoteConnection(DeviceContext *record) : record_(record) {}
    ~RemoteConnection(); // closes the socket and waits until every connect thread has ended
    RemoteConnection(const RemoteConnection &) = delete;
    RemoteConnection &operator=(const RemoteConnection &) = delete;

    // At most 256 bytes of `addr` and 20 of `username` are read; a shorter text ends in a zero byte.
    void SetAddress(const char *addr, int domainFlag, int port, const char *username);
    wire::AddrParam Address() const;

    void SetSocket(int fd); // closes nothing
    int Socket() const;     // -1: not connected

    // The slot in which the work loop watches the socket. NULL: there is none, and the socket is closed. A
    // connect thread hands its socket over only after the first call.
    void SetMonitor(MonitorSession *monitor); // main thread
    MonitorSession *Monitor() const;
    MonitorSession CopySlot(const MonitorSession &slot) const; // consistent, though connect threads write it

    void WatchInstead(int fd); // the work loop watches `fd` in place of the socket, until WatchSocket
    void WatchSocket();

    // Main thread. Both close the socket and empty the receive buffer.
    void Lose();   // after a failure; the remote user's device lock is released
    void Forget(); // removes the saved address, ends the connect threads and the heartbeat

    // How soon the next connect may follow the last one: true after a second; false after six, since the
    // server has not shown that it wants this board.
    void SetQuickPace(bool quick);

    void StopHeartbeat(); // one entry of it leaves the tick table

    // After a failure that may pass: a retry is due after kRetryPause, unless Forget, a newer connect thread
    // or a login comes before.
    void RetryLater();
    bool WaitForRetry(); // until one is due; false after EndRetries
    bool TakeRetry();    // false if none is due any more
    void EndRetries();

    static constexpr std::chrono::seconds kRetryPause{6};

private:
    using Clock = std::chrono::steady_clock;
    using Lock = std::lock_guard<std::mutex>;

    // With the lock taken. The caller closes the socket that TakeSocket returns.
    ledboard::UniqueFd TakeSocket(const Lock &);
    void EndThreads(const Lock &);

    DeviceContext *record_;

    mutable std::mutex s_fd_mutex;    // a given name, as every member of this room that begins with s_
    std::condition_variable changed_; // one of the following has changed
    unsigned newest_ = 0;             // number of the thread that may log in
    int threads_ = 0;                 // that have not ended
    const Turn *working_ = nullptr;
    const Turn *lookingUp_ = nullptr;
    bool monitorIsKnown_ = false;
    bool quickPace_ = true;
    std::optional<Clock::time_point> lastConnect_;
    std::optional<Clock::time_point> retryAt_;
    bool retriesEnded_ = false;
};

// What a connect thread holds from its start to its end. Only the newest turn may log in: the functions of an
// older one return false at once, and its thread ends.
//
// A name look-up cannot be interrupted. So that threads never pile up, one turn works at a time, another one
// may look up a name meanwhile, and the newest one waits.
class RemoteConnection::Turn
{
public:
    using Clock = RemoteConnection::Clock;

    explicit Turn(RemoteConnection *connection); // from now on the newest
    ~Turn();
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

    RemoteConnection &Connection() const { return connection_; }
    bool IsNewest() const;
    bool SleepUntil(Clock::time_point moment) const;
    bool SleepFor(Clock::duration time) const { return SleepUntil(Clock::now() + time); }
    bool KeepPace() const; // sleeps until the next connect may be made

    bool Begin(); // waits until no other turn works; from now on this one does

    // Waits until no other turn looks up a name. During the look-up a newer turn may work.
    bool BeginLookUp();
    bool EndLookUp();

    bool BeginLogin() const;

    void RetryLater() const; // as of the connection

    // Waits for the first SetMonitor and gives the socket to the work loop. Without a slot the socket stays
    // with the caller, which is no failure.
    bool HandOver(ledboard::UniqueFd *socket) const;

private:
    RemoteConnection &connection_;
    unsigned number_;
};
