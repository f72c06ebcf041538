// SPDX-License-Identifier: MIT
#include "verbs/command_line.h"

#include "common/pc/command_line.h"
#include "terminal/interrupt.h"
#include "verbs/verbs.h"

#include <cmath>
#include <iostream>
#include <string_view>

namespace ledboard
{

namespace
{

constexpr const char *kProgram = "ledboard";

constexpr Verb kVerbs[] = {
    {"discover", "List the boards on the network.", DefineDiscover},
    {"firmware", "Show or replace the firmware of boards.", DefineFirmware},
    {"info", "Show everything that a board reports about itself.", DefineInfo},
    {"server", "Show or set the management server that boards connect to.", DefineServer},
    {"upload", "Send a display program to boards.", DefineUpload},
    {"modem", "Show the state of the 3G modem and the SMS it has received.", DefineModem},
    {"network", "Show or change how a board gets its address.", DefineNetwork},
    {"settings", "Show, save, load or change the screen settings.", DefineSettings},
    {"brightness", "Set or show the brightness.", DefineBrightness},
    {"luminance", "Get or put the luminance file.", DefineLuminance},
    {"boot-screen", "Set or clear the picture shown while the board starts.", DefineBootScreen},
    {"clock", "Show or set the board's clock.", DefineClock},
    {"name", "Give the board a name.", DefineName},
    {"identity", "Give the board an identifier.", DefineIdentity},
    {"reboot-schedule", "Show or set when the board reboots itself.", DefineRebootSchedule},
    {"smart-setting", "Switch the player's smart setting on or off.", DefineSmartSetting},
    {"slant-line", "Switch the player's slant lines on or off.", DefineSlantLine},
    {"fpga-frame", "Send one frame to the FPGA.", DefineFpgaFrame},
};

constexpr const char *kExitStatuses =
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 no such board, 4 time-out, 5 refused by the board,\n"
    "6 verification failed, 7 done on some of the boards only, 130 interrupted.\n"
    "\"ledboard VERB --help\" explains a verb.\n";

std::string CheckTimeout(const std::string &text)
{
    double seconds = 0;
    const bool isNumber = CLI::detail::lexical_cast(text, seconds);
    return isNumber && seconds >= 0.1 && seconds <= 3600 ? "" : "must be from 0.1 to 3600 seconds";
}

std::string CheckJobs(const std::string &text)
{
    unsigned jobs = 0;
    return CLI::detail::lexical_cast(text, jobs) && jobs >= 1 && jobs <= 256 ? "" : "must be from 1 to 256";
}

void AddCommonOptions(CLI::App &command, ToolOptions &options)
{
    constexpr const char *kGroup = "Common options";
    command.add_flag("--json", options.json, "print one JSON document; errors too; never ask")->group(kGroup);
    command.add_flag("-q,--quiet", options.quiet, "no notes and no progress")->group(kGroup);
    command.add_flag("-n,--dry-run", options.dryRun, "say what would be done, but change nothing on a board")
        ->group(kGroup);
    command.add_flag("-y,--yes", options.yes, "do not ask before something is destroyed")->group(kGroup);
    command.add_option("-j,--jobs", options.jobs, "boards at the same time, 1 to 256 (4)")
        ->check(CheckJobs)
        ->type_name("N")
        ->group(kGroup);
    command.add_option("-t,--timeout", options.timeout, "how long to wait for answers (2)")
        ->check(CheckTimeout)
        ->type_name("SECONDS")
        ->group(kGroup);
    command.add_option("-i,--interface", options.interface, "use this network interface only (all)")
        ->type_name("NAME")
        ->group(kGroup);
}

// The verb that the command line names; null if it needs no verb (--help, --version).
VerbAction ReadCommandLine(CLI::App &app, ToolOptions &options, int argc, const char *const *argv)
{
    std::vector<std::pair<CLI::App *, VerbAction>> actions;
    app.set_version_flag("--version", "ledboard " LEDBOARD_VERSION);
    app.footer(kExitStatuses);
    app.require_subcommand(1);
    app.get_formatter()->label("SUBCOMMAND", "VERB");
    app.fallthrough();
    AddCommonOptions(app, options);
    for (const Verb &verb : kVerbs) {
        CLI::App *command = app.add_subcommand(verb.name, verb.summary)->group("Verbs");
        // Added to the verbs too, so that "ledboard VERB --help" lists them.
        AddCommonOptions(*command, options);
        actions.emplace_back(command, verb.define(*command));
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &request) {
        app.exit(request);
        std::cout.flush();
        return nullptr;
    } catch (const CLI::ParseError &error) {
        throw VerbError(ExitStatus::kUsage, UsageMessage(app, error));
    }
    for (auto &[command, action] : actions)
        if (command->parsed())
            return action;
    return nullptr;
}

ExitStatus Report(Output &output, const VerbError &error)
{
    output.Error(error);
    return error.Status();
}

ExitStatus RunVerb(Output &output, const VerbAction &action, const ToolOptions &options)
{
    try {
        ToolContext context = {options, output};
        const ExitStatus status = action(context);
        output.Finish();
        return status;
    } catch (const VerbError &error) {
        return Report(output, error);
    } catch (const std::exception &error) {
        return Report(output, {ExitStatus::kFailed, error.what()});
    }
}

} // namespace

int RunTool(int argc, const char *const *argv)
{
    ToolOptions options;
    // Actions ask which of their sub-verbs was named, so the command line has to outlive them.
    CLI::App app("Finds LED display controller boards on the network and looks after them.", kProgram);
    VerbAction action;
    try {
        WatchInterrupt();
        action = ReadCommandLine(app, options, argc, argv);
    } catch (const VerbError &error) {
        Output output(kProgram, {.json = AsksForJson(argc, argv)});
        Report(output, error);
        output.Note("\"ledboard --help\" and \"ledboard VERB --help\" explain the usage");
        return static_cast<int>(error.Status());
    }
    if (!action)
        return static_cast<int>(std::cout.good() ? ExitStatus::kDone : ExitStatus::kFailed);
    Output output(kProgram, options);
    return static_cast<int>(RunVerb(output, action, options));
}

} // namespace ledboard
