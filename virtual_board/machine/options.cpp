// SPDX-License-Identifier: MIT
#include "machine/options.h"

#include "machine/pc_side.h"

#include <fmt/core.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace board
{

namespace
{

namespace fs = std::filesystem;

std::string FromEnvironment(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

Options::Options()
{
    daemon = FromEnvironment("LEDBOARD_DAEMON");
    if (daemon.empty()) {
        const std::string folder = FromEnvironment("LEDBOARD_BIN_DIR");
        daemon = fs::path(folder.empty() ? ProgramFolder() : folder) / "ledboardd";
    }
    daemon = fs::absolute(daemon);
    std::istringstream words(FromEnvironment("LEDBOARD_DAEMON_PREFIX"));
    for (std::string word; words >> word;)
        prefix.push_back(word);
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const std::string value = FromEnvironment(name); !value.empty())
            environment.push_back(fmt::format("{}={}", name, value));
    }
}

} // namespace board
