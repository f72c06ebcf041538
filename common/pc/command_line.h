// SPDX-License-Identifier: MIT
// common/pc/command_line.h: what programs with verbs say about a command line that cannot be read.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace ledboard
{

// What is wrong with the command line. CLI11's own text does not name the verb that is missing.
std::string UsageMessage(const CLI::App &app, const CLI::ParseError &error);

// True when the arguments contain --json. An error is printed as JSON then, even if the rest cannot be read.
bool AsksForJson(int argc, const char *const *argv);

} // namespace ledboard
