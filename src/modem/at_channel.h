// SPDX-License-Identifier: MIT
// src/modem/at_channel.h: sends AT commands over the modem's line, one at a time, and takes their answers.
// Modem thread.
#pragma once

#include "modem/at_answers.h"
#include "modem/modem_port.h"

#include <functional>
#include <string>

enum class AtResult {
    kOk,
    kRefused, // the modem answered with a failure
    kTimeout, // no complete answer within the command's time limit
    kGone,    // the line broke
    kStopped, // ModemPort::Stop was called
};

inline bool IsAnswer(AtResult result)
{
    return result == AtResult::kOk || result == AtResult::kRefused;
}

class AtChannel
{
public:
    // `port` must live as long as this. `onUnsolicited` gets every line that belongs to no command, on the
    // calling thread.
    AtChannel(ModemPort &port, std::function<void(const std::string &)> onUnsolicited);

    // Sends the command and takes its answer into `answer`, which also gets the failure of a timeout. While
    // the SIM is busy the command is repeated once a second, at most kMaxRepeats times.
    AtResult Ask(const AtCommand &command, AtAnswer *answer);
    static constexpr int kMaxRepeats = 30;

    // Takes unsolicited lines. kOk as soon as at least one has come, kTimeout if none comes within `time`.
    AtResult Listen(ModemClock::duration time);
    // Waits until the line has been quiet for 0.2 s, at most 2 s, so that late answers to older commands are
    // not taken for answers to the next one. What comes is handled as unsolicited.
    AtResult Settle();

    int Timeouts() const { return timeouts_; } // in a row, since the last answer
    void Reset();                              // for a line that was opened again

private:
    AtResult AskOnce(const AtCommand &command, AtAnswer *answer);
    AtResult Collect(const AtCommand &command, ModemClock::time_point end, AtAnswer *answer);
    bool TakeUnsolicited(); // true if there were any lines

    ModemPort &port_;
    std::function<void(const std::string &)> onUnsolicited_;
    AtLines lines_;
    int timeouts_ = 0;
};
