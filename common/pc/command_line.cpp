// SPDX-License-Identifier: MIT
#include "common/pc/command_line.h"

#include <string_view>

namespace ledboard
{

std::string UsageMessage(const CLI::App &app, const CLI::ParseError &error)
{
    const auto missing = [](const CLI::App &command) {
        return command.get_require_subcommand_min() > 0 && command.get_subcommands().empty();
    };
    // All other errors name what is wrong.
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::RequiredError))
        return error.what();
    if (missing(app))
        return app.remaining().empty() ? "a verb is missing"
                                       : "there is no verb '" + app.remaining().front() + "'";
    const CLI::App *const verb = app.get_subcommands().front();
    if (!missing(*verb))
        return error.what();
    std::string actions;
    for (const CLI::App *action : verb->get_subcommands([](const CLI::App *) { return true; }))
        actions += (actions.empty() ? "" : ", ") + action->get_name();
    return "\"" + verb->get_name() + "\" takes one of the words " + actions + " first";
}

bool AsksForJson(int argc, const char *const *argv)
{
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
        if (std::string_view(argv[i]) == "--json")
            return true;
    return false;
}

} // namespace ledboard
