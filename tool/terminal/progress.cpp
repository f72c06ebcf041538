// SPDX-License-Identifier: MIT
#include "terminal/progress.h"

#include "common/pc/text.h"

#include <fmt/format.h>

#include <algorithm>

namespace ledboard
{

namespace
{

using std::chrono::steady_clock;

double Rate(const ProgressState &state)
{
    return state.elapsed.count() > 0 ? static_cast<double>(state.done) / state.elapsed.count() : 0;
}

std::string FormatTimeLeft(const ProgressState &state)
{
    const double rate = Rate(state);
    if (rate <= 0)
        return "-:--";
    constexpr double kMaxSeconds = 359999; // 99:59:59
    const double left = static_cast<double>(state.total - std::min(state.done, state.total)) / rate;
    const auto seconds = static_cast<unsigned>(std::min(left + 0.5, kMaxSeconds));
    if (seconds < 3600)
        return fmt::format("{}:{:02}", seconds / 60, seconds % 60);
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

} // namespace

int Percent(const ProgressState &state)
{
    if (state.done >= state.total)
        return 100;
    return static_cast<int>(static_cast<double>(state.done) * 100.0 / static_cast<double>(state.total));
}

std::string FormatBytes(std::uint64_t bytes)
{
    return bytes < 1024 ? fmt::format("{} B", bytes) : FormatKib(bytes / 1024);
}

std::string FormatProgress(const std::string &what, const ProgressState &state)
{
    return fmt::format("{} {}% {}/{} {}/s, {} left", what, Percent(state), FormatBytes(state.done),
                       FormatBytes(state.total), FormatBytes(static_cast<std::uint64_t>(Rate(state))),
                       FormatTimeLeft(state));
}

std::string FormatBar(const std::string &what, const ProgressState &state)
{
    constexpr int kWidth = 24;
    const int filled = Percent(state) * kWidth / 100;
    return fmt::format("{} [{:#<{}}{:.<{}}] {:3}% {}/s, {} left", what, "", filled, "", kWidth - filled,
                       Percent(state), FormatBytes(static_cast<std::uint64_t>(Rate(state))),
                       FormatTimeLeft(state));
}

Progress::Progress(Output &output, std::string label, std::string what, std::uint64_t total, bool alone)
    : output_(output), label_(std::move(label)), what_(std::move(what)), total_(total),
      bar_(alone && output.ErrorIsTerminal() && !output.Json() && !output.Quiet()),
      start_(steady_clock::now())
{
}

Progress::~Progress()
{
    if (bar_ && drawn_ != steady_clock::time_point())
        output_.Draw("\n");
}

void Progress::Advance(std::uint64_t bytes)
{
    done_ += bytes;
    const ProgressState state = {done_, total_, steady_clock::now() - start_};
    if (bar_)
        Draw(state);
    else
        ShowTenths(state);
}

void Progress::Draw(const ProgressState &state)
{
    constexpr auto kRedraw = std::chrono::milliseconds(100);
    // The last state is always drawn.
    if (state.done < state.total && steady_clock::now() - drawn_ < kRedraw)
        return;
    drawn_ = steady_clock::now();
    constexpr const char *kClearToEnd = "\x1b[K";
    output_.Draw("\r" + FormatBar(label_ + ": " + what_, state) + kClearToEnd);
}

void Progress::ShowTenths(const ProgressState &state)
{
    const int tenth = Percent(state) / 10;
    if (tenth <= shownTenth_)
        return;
    shownTenth_ = tenth;
    if (output_.Quiet())
        return;
    if (output_.Json())
        output_.PrintJson({{"progress",
                            {{"board", label_},
                             {"what", what_},
                             {"percent", tenth * 10},
                             {"done", state.done},
                             {"total", state.total}}}});
    else
        output_.Note(FormatProgress(label_ + ": " + what_, state));
}

} // namespace ledboard
