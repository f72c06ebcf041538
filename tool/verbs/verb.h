// SPDX-License-Identifier: MIT
// tool/verbs/verb.h: what a verb is: one function of verbs.h and one row in the table of command_line.cpp.
#pragma once

#include "common/pc/output.h"
#include "common/pc/verb_error.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace ledboard
{

// The options of every verb, whether it uses them or not.
struct ToolOptions : OutputOptions {
    bool dryRun = false;
    bool yes = false;
    unsigned jobs = 4;
    std::string interface;
    std::optional<double> timeout; // seconds
};

struct ToolContext {
    const ToolOptions &options;
    Output &output;

    // --timeout, or `preset` without it.
    std::chrono::milliseconds Timeout(std::chrono::milliseconds preset) const
    {
        using std::chrono::milliseconds;
        if (!options.timeout)
            return preset;
        return std::chrono::ceil<milliseconds>(std::chrono::duration<double>(*options.timeout));
    }
};

// The duration of a search for boards without --timeout.
constexpr std::chrono::milliseconds kSearchTime{2000};

// Runs the verb once the command line has been read. Throws VerbError.
using VerbAction = std::function<ExitStatus(ToolContext &)>;

struct Verb {
    const char *name;
    const char *summary;
    VerbAction (*define)(CLI::App &command); // adds the verb's arguments to its command
};

} // namespace ledboard
