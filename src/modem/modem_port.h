// SPDX-License-Identifier: MIT
// src/modem/modem_port.h: the modem's line "/dev/ttyUSB3" (115200 8N1), opened for the daemon alone. Modem
// thread; whoever ends that thread calls Stop.
#pragma once

#include "common/unique_fd.h"

#include <chrono>
#include <string>
#include <string_view>

using ModemClock = std::chrono::steady_clock;

class ModemPort
{
public:
    enum Event {
        kBytes,   // done
        kTimeout, // the time is up
        kGone,    // the line broke, as when the modem is pulled out
        kStopped, // Stop was called
    };

    ModemPort();
    void Stop(); // any thread: every call that waits returns kStopped from now on

    // Opens the line; afterwards the modem's first bytes are still to come. False: Failure() says why.
    bool Open();
    void Close(); // drops what has not been sent
    const std::string &Failure() const { return failure_; }

    // Waits for bytes until `end` and appends them to `bytes`; kBytes also if there were none after all.
    Event Receive(ModemClock::time_point end, std::string *bytes);
    // Hands all bytes to the line by `end`, or fails with some of them handed over.
    Event Send(std::string_view bytes, ModemClock::time_point end);
    // Waits, whether the line is open or not: kTimeout or kStopped.
    Event Sleep(ModemClock::duration time);
    // Whether the name still leads to the open device; false if the device was removed or replaced.
    bool StillThere() const;

private:
    Event Wait(int fd, short events, ModemClock::time_point end) const;
    bool Configure(int fd); // false with errno

    ledboard::UniqueFd stop_; // an eventfd, readable after Stop
    ledboard::UniqueFd fd_;
    std::string failure_;
};
