// SPDX-License-Identifier: MIT
// tool/terminal/progress.h: shows how far a long job is: a bar on a terminal, elsewhere a line per 10 %, with
// --json an object per line, with --quiet nothing. Each Progress belongs to one thread; several may run at
// once.
#pragma once

#include "common/pc/output.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace ledboard
{

struct ProgressState {
    std::uint64_t done;
    std::uint64_t total;
    std::chrono::duration<double> elapsed;
};

int Percent(const ProgressState &state); // 100 only when all is done
std::string FormatBytes(std::uint64_t bytes);
std::string FormatProgress(const std::string &what, const ProgressState &state); // without a bar
std::string FormatBar(const std::string &what, const ProgressState &state);

class Progress
{
public:
    // `alone`: no other job shows its progress, so a bar is possible. `label` names the board.
    Progress(Output &output, std::string label, std::string what, std::uint64_t total, bool alone);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void Advance(std::uint64_t bytes);

private:
    void Draw(const ProgressState &state);
    void ShowTenths(const ProgressState &state);

    Output &output_;
    std::string label_;
    std::string what_;
    std::uint64_t total_;
    std::uint64_t done_ = 0;
    bool bar_;
    int shownTenth_ = 0;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point drawn_;
};

} // namespace ledboard
