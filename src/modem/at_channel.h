// SPDX-License-Identifier: MIT
// src/modem/at_channel.h: one AT command at a time over the modem's line. Modem thread.
#pragma once

#include "modem/at_lines.h"
#include "modem/modem_port.h"

#include <functional>

enum class AtResult {
    kOk,
    kRefused, // the modem answered with a failure
    kTimeout, // it did not answer
    kGone,    // the line is gone
    kStopped, // the thread is to end
};

inline bool IsAnswer(AtResult result)
{
    return result == AtResult::kOk || result == AtResult::kRefused;
}

class ModemChannel
{
public:
    // `onUnsolicited` gets every line that belongs to no command.
    ModemChannel(ModemPort &port, std::function<void(const std::string &)> onUnsolicited);

    // Sends the command and takes its answer. A modem that is busy is asked again, once a second, for
    // kMostBusy times.
    AtResult Ask(const AtCommand &command, AtAnswer *answer);
    static constexpr int kMostBusy = 30;

    // Takes unsolicited lines for `time`; ends early, with kOk, when one came. kTimeout: none did.
    AtResult Listen(ModemClock::duration time);
    // Drops what still comes of older answers, until the line is quiet.
    AtResult Settle();

    // In a row, since the last answer.
    int Timeouts() const { return timeouts_; }
    void Reset(); // for a line that was opened anew

private:
    AtResult AskOnce(const AtCommand &command, AtAnswer *answer);
    AtResult Collect(const AtCommand &command, ModemClock::time_point end, AtAnswer *answer);
    bool TakeUnsolicited(); // true: there were some

    ModemPort &port_;
    std::function<void(const std::string &)> onUnsolicited_;
    AtLines lines_;
    int timeouts_ = 0;
};
