// SPDX-License-Identifier: MIT
#include "state/tick.h"

#include "base/diag.h"
#include "common/unique_fd.h"
#include "records/wire_types.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <vector>

namespace
{

constexpr char kUnit[] = "src/tick.cpp";

constexpr int kTickProtocol = 28;  // netlink protocol of the board's timer driver
constexpr int kMessagePeriod = 33; // milliseconds that one driver message stands for
constexpr int kTickPeriod = 1000;  // milliseconds
constexpr std::uint32_t kTimerWord = 98;
constexpr std::uint32_t kFiredWord = 1;

std::mutex s_tickMutex;
std::array<TickFunction, kTickSlots> tickArray{};
// Functions that wait for an empty slot, without duplicates, the oldest first. Never destroyed: a connect
// thread may still remove its function while the process ends.
std::vector<TickFunction> &s_waiting = *new std::vector<TickFunction>;

int s_timerFd = -1; // the replacement source, -1 with the board's driver

int OpenDriver()
{
    ledboard::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, kTickProtocol));
    if (!fd.Valid())
        return -1;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = 1;
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1)
        return -1;
    return fd.Release();
}

int OpenTimer()
{
    ledboard::UniqueFd fd(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const itimerspec everySecond{.it_interval = {.tv_sec = 1, .tv_nsec = 0},
                                 .it_value = {.tv_sec = 1, .tv_nsec = 0}};
    if (!fd.Valid() || timerfd_settime(fd.Get(), 0, &everySecond, nullptr) == -1)
        return -1;
    return fd.Release();
}

int ReadTimer(int fd)
{
    std::uint64_t expirations = 0;
    return read(fd, &expirations, sizeof expirations) == sizeof expirations ? 1 : -1;
}

using TickLock = std::lock_guard<std::mutex>; // as an argument: the caller holds s_tickMutex

// False if no slot is empty.
bool PutIntoEmptySlot(TickFunction fn, const TickLock &)
{
    const auto slot = std::ranges::find(tickArray, nullptr);
    if (slot == tickArray.end())
        return false;
    *slot = fn;
    return true;
}

void PutWaitingIntoEmptySlots(const TickLock &lock)
{
    while (!s_waiting.empty() && PutIntoEmptySlot(s_waiting.front(), lock))
        s_waiting.erase(s_waiting.begin());
}

void AddToWaiting(TickFunction fn, const TickLock &)
{
    if (std::ranges::find(tickArray, fn) == tickArray.end() &&
        std::ranges::find(s_waiting, fn) == s_waiting.end())
        s_waiting.push_back(fn);
}

} // namespace

void InsertToTick(TickFunction fn)
{
    if (fn == nullptr)
        return;
    const TickLock lock(s_tickMutex);
    if (!PutIntoEmptySlot(fn, lock))
        Diag(kUnit, __func__, __LINE__, "no tick slot is empty, the function is not run.");
}

void InsertToTickOrWait(TickFunction fn)
{
    if (fn == nullptr)
        return;
    const TickLock lock(s_tickMutex);
    if (PutIntoEmptySlot(fn, lock))
        return;
    Diag(kUnit, __func__, __LINE__, "no tick slot is empty, the function waits for one.");
    AddToWaiting(fn, lock);
}

void RemoveFromTick(TickFunction fn)
{
    if (fn == nullptr)
        return;
    const TickLock lock(s_tickMutex);
    const auto slot = std::ranges::find(tickArray, fn);
    if (slot != tickArray.end())
        *slot = nullptr;
    else
        std::erase(s_waiting, fn);
}

int SlotsInTick(TickFunction fn)
{
    const TickLock lock(s_tickMutex);
    return static_cast<int>(std::ranges::count(tickArray, fn));
}

void CallTickFunctions()
{
    for (const TickFunction &slot : tickArray) {
        TickFunction fn;
        {
            const TickLock lock(s_tickMutex);
            fn = slot;
        }
        if (fn != nullptr)
            fn(); // without the lock: it may change the table
    }
    const TickLock lock(s_tickMutex);
    PutWaitingIntoEmptySlots(lock);
}

int InitTick()
{
    const int driver = OpenDriver();
    if (driver != -1) {
        Diag(kUnit, __func__, __LINE__, "tick source: timer driver.");
        return driver;
    }
    if (errno != EPROTONOSUPPORT) { // the kernel has the driver: another source would hide its fault
        DiagErrno(kUnit, __func__, __LINE__, "timer driver: ");
        return -1;
    }
    s_timerFd = OpenTimer();
    if (s_timerFd == -1)
        DiagErrno(kUnit, __func__, __LINE__, "timer: ");
    else
        Diag(kUnit, __func__, __LINE__, "tick source: timer of one second, the kernel has no timer driver.");
    return s_timerFd;
}

int ReadTick(int fd)
{
    if (fd == s_timerFd)
        return ReadTimer(fd);
    static int s_milliseconds = 0;
    std::byte message[128];
    const ssize_t count = recv(fd, message, sizeof message, 0);
    if (count < 1)
        return -1;
    const wire::Bytes received(message, static_cast<std::size_t>(count));
    const auto first = wire::Read<wire::U32>(received, sizeof(nlmsghdr));
    const auto second = wire::Read<wire::U32>(received, sizeof(nlmsghdr) + sizeof(wire::U32));
    if (!first || !second || *first != kTimerWord || *second != kFiredWord)
        return 0;
    s_milliseconds += kMessagePeriod;
    if (s_milliseconds <= kTickPeriod)
        return 0;
    s_milliseconds -= kTickPeriod;
    return 1;
}
