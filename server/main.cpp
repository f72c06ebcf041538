// SPDX-License-Identifier: MIT
// The command line of ledboard-server.
#include "management_server.h"
#include "operator_client.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>

namespace
{

using ledboard::ExitStatus;

std::string DefaultControl()
{
    const char *const folder = std::getenv("XDG_RUNTIME_DIR");
    return (folder != nullptr && *folder != '\0' ? std::string(folder) : "/run") + "/ledboard-server.sock";
}

ExitStatus Serve(server::ServerOptions options, const std::string &listen)
{
    const std::size_t colon = listen.rfind(':');
    options.address = colon == std::string::npos ? "0.0.0.0" : listen.substr(0, colon);
    const std::string port = colon == std::string::npos ? listen : listen.substr(colon + 1);
    try {
        const int number = std::stoi(port);
        if (number < 0 || number > 65535)
            throw std::out_of_range("port " + port);
        options.port = static_cast<std::uint16_t>(number);
        server::ManagementServer(std::move(options)).Run();
        return ExitStatus::kDone;
    } catch (const std::exception &error) {
        ledboard::Output("ledboard-server", {}).Error({ExitStatus::kFailed, error.what()});
        return ExitStatus::kFailed;
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app("Manages LED display controller boards that connect to it.", "ledboard-server");
    app.require_subcommand(1);
    app.set_version_flag("--version", "ledboard-server " LEDBOARD_VERSION);
    app.fallthrough();
    server::OperatorOptions operatorOptions;
    operatorOptions.control = DefaultControl();
    app.add_option("--control", operatorOptions.control, "local socket of the server")->capture_default_str();
    app.add_flag("--json", operatorOptions.json, "print JSON, errors too");
    app.add_flag("-q,--quiet", operatorOptions.quiet, "no log, no progress");

    server::ServerOptions serverOptions;
    std::string listen = "0.0.0.0:8990";
    std::vector<std::string> users;
    CLI::App *const run = app.add_subcommand("run", "Accept boards and operators until SIGINT or SIGTERM.");
    run->add_option("--listen", listen, "where boards connect")
        ->type_name("[ADDRESS:]PORT")
        ->capture_default_str();
    run->add_option("--user", users, "accept this user only; several are possible")->type_name("NAME");

    CLI::App *const boards = app.add_subcommand("boards", "List the boards that are or were connected.");

    std::string folder;
    std::string to;
    CLI::App *const push = app.add_subcommand("push", "Make the program folder of boards equal to FOLDER. "
                                                      "What is not in FOLDER is removed from them.");
    push->add_option("FOLDER", folder, "the program")->required();
    push->add_option("--to", to, "identifier of a board, or \"all\" for all that are connected")
        ->required()
        ->type_name("ID|all");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return static_cast<int>(app.exit(error) == 0 ? ExitStatus::kDone : ExitStatus::kUsage);
    }
    if (run->parsed()) {
        serverOptions.control = operatorOptions.control;
        serverOptions.quiet = operatorOptions.quiet;
        serverOptions.users.insert(users.begin(), users.end());
        return static_cast<int>(Serve(std::move(serverOptions), listen));
    }
    return static_cast<int>(boards->parsed() ? server::ListBoards(operatorOptions)
                                             : server::PushFolder(operatorOptions, folder, to));
}
