// SPDX-License-Identifier: MIT
#include "modem/at_channel.h"

using namespace std::chrono_literals;

namespace
{

// Enough for all that a modem reports at power-up. A modem that never pauses cannot keep commands waiting.
constexpr int kMaxLinesBefore = 256;

AtResult ResultOf(ModemPort::Event event)
{
    switch (event) {
    case ModemPort::kGone:
        return AtResult::kGone;
    case ModemPort::kStopped:
        return AtResult::kStopped;
    case ModemPort::kTimeout:
        return AtResult::kTimeout;
    case ModemPort::kBytes:
        break;
    }
    return AtResult::kOk;
}

} // namespace

AtChannel::AtChannel(ModemPort &port, std::function<void(const std::string &)> onUnsolicited)
    : port_(port), onUnsolicited_(std::move(onUnsolicited))
{
}

void AtChannel::Reset()
{
    lines_.Clear();
    timeouts_ = 0;
}

bool AtChannel::TakeUnsolicited()
{
    bool any = false;
    while (const auto line = lines_.Next()) {
        any = true;
        onUnsolicited_(line->text);
    }
    return any;
}

AtResult AtChannel::Listen(ModemClock::duration time)
{
    const auto end = ModemClock::now() + time;
    for (;;) {
        std::string bytes;
        const ModemPort::Event event = port_.Receive(end, &bytes);
        lines_.Feed(bytes);
        if (TakeUnsolicited())
            return AtResult::kOk;
        if (event != ModemPort::kBytes)
            return ResultOf(event);
        if (ModemClock::now() > end) // bytes keep coming, but no line ends
            return AtResult::kTimeout;
    }
}

AtResult AtChannel::Settle()
{
    constexpr auto kQuiet = 200ms;
    constexpr auto kLimit = 2s;
    const auto end = ModemClock::now() + kLimit;
    AtResult result = AtResult::kOk;
    while (result == AtResult::kOk && ModemClock::now() < end)
        result = Listen(kQuiet);
    return result == AtResult::kTimeout ? AtResult::kOk : result;
}

AtResult AtChannel::Collect(const AtCommand &command, ModemClock::time_point end, AtAnswer *answer)
{
    AtExchange exchange(command);
    bool complete = false;
    ModemPort::Event event = ModemPort::kBytes;
    while (!complete && event == ModemPort::kBytes) {
        std::string bytes;
        event = port_.Receive(end, &bytes);
        lines_.Feed(bytes);
        // Lines after the final result stay in lines_: they are unsolicited.
        while (!complete) {
            const auto line = lines_.Next();
            if (!line)
                break;
            complete = exchange.Take(*line);
        }
        // A modem that sends without a pause would never let Receive time out.
        if (event == ModemPort::kBytes && ModemClock::now() > end)
            event = ModemPort::kTimeout;
    }
    if (!complete && event == ModemPort::kTimeout)
        complete = exchange.TakeTimeout();
    for (const std::string &line : exchange.Unsolicited())
        onUnsolicited_(line);
    *answer = std::move(exchange.Answer());
    if (!complete)
        return ResultOf(event);
    return answer->ok ? AtResult::kOk : AtResult::kRefused;
}

AtResult AtChannel::AskOnce(const AtCommand &command, AtAnswer *answer)
{
    // What has come since the last answer does not belong to this command.
    AtResult before = AtResult::kOk;
    for (int lines = 0; before == AtResult::kOk && lines < kMaxLinesBefore; ++lines)
        before = Listen(0s);
    if (before == AtResult::kGone || before == AtResult::kStopped)
        return before;
    const auto end = ModemClock::now() + command.limit;
    AtResult result = ResultOf(port_.Send(std::string(command.text) + "\r", end));
    if (result == AtResult::kOk)
        result = Collect(command, end, answer);
    if (result == AtResult::kTimeout) {
        ++timeouts_;
        answer->failure = std::string(command.text) + ": no answer";
    } else if (IsAnswer(result)) {
        timeouts_ = 0;
    }
    return result;
}

AtResult AtChannel::Ask(const AtCommand &command, AtAnswer *answer)
{
    for (int attempt = 0;; ++attempt) {
        *answer = {};
        const AtResult result = AskOnce(command, answer);
        if (result != AtResult::kRefused || answer->meaning != AtMeaning::kSimBusy || attempt == kMaxRepeats)
            return result;
        const AtResult pause = ResultOf(port_.Sleep(1s));
        if (pause == AtResult::kStopped)
            return pause;
    }
}
