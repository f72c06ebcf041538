// SPDX-License-Identifier: MIT
// src/modem/modem_port.h: the modem's line "/dev/ttyUSB3" (115200 8N1), opened for the daemon alone. Modem
// thread; whoever ends the thread calls Stop.
#pragma once

#include "common/unique_fd.h"

#include <chrono>
#include <string>
#include <string_view>

using ModemClock = std::chrono::steady_clock;

class ModemPort
{
public:
    enum Event { kBytes, kTimeout, kGone, kStopped };

    ModemPort();
    void Stop(); // any thread: every wait ends with kStopped from now on

    bool Open(); // false with Failure()
    void Close();
    const std::string &Failure() const { return failure_; }

    // What came until `end`, appended to `bytes`.
    Event Receive(ModemClock::time_point end, std::string *bytes);
    // kBytes: all of it is on its way.
    Event Send(std::string_view bytes, ModemClock::time_point end);
    // Without the line: kTimeout or kStopped.
    Event Sleep(ModemClock::duration time);
    // The device that is open is still the one of that name.
    bool StillThere() const;

private:
    Event Wait(int fd, short events, ModemClock::time_point end) const;
    bool Configure(int fd);

    ledboard::UniqueFd stop_; // an event
    ledboard::UniqueFd fd_;
    std::string failure_;
};
