// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "discovery/server_settings.h"
#include "terminal/confirm.h"
#include "terminal/interrupt.h"
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <charconv>
#include <memory>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{2'000};
constexpr std::chrono::milliseconds kConnectPatience{5'000};
constexpr std::chrono::milliseconds kLookPeriod{200};
constexpr std::size_t kMaxHost = 255;
constexpr std::size_t kMaxUser = 20;

struct ServerArguments {
    std::vector<std::string> names;
    std::string server; // HOST:PORT
    std::string user;
};

ServerSettings ParseServer(const ServerArguments &arguments)
{
    const std::size_t colon = arguments.server.rfind(':');
    const std::string host = arguments.server.substr(0, colon);
    const std::string digits = colon == std::string::npos ? "" : arguments.server.substr(colon + 1);
    int port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    const bool isPort =
        error == std::errc() && end == digits.data() + digits.size() && port > 0 && port <= 65535;
    const auto isLine = [](const std::string &text) {
        return text.find_first_of(std::string("\n\0", 2)) == std::string::npos;
    };
    if (!isPort || host.empty() || host.size() > kMaxHost || !isLine(host))
        throw VerbError(ExitStatus::kUsage, "'" + arguments.server + "' is not HOST:PORT");
    if (arguments.user.size() > kMaxUser || !isLine(arguments.user))
        throw VerbError(ExitStatus::kUsage, "a user name has at most 20 bytes");
    return {host, port, arguments.user};
}

ServerQuery MakeQuery(const ToolContext &context, const Board &board)
{
    return {board, context.options.interface, context.Timeout(kAnswerPatience)};
}

nlohmann::json Show(const ToolContext &context, const Board &board)
{
    const ServerSettings settings = AskServer(MakeQuery(context, board));
    const bool connected = AskConnected(MakeQuery(context, board));
    nlohmann::json result = {{"board", BoardLabel(board)}, {"server", nullptr}, {"connected", connected}};
    if (!settings.host.empty())
        result["server"] = {{"host", settings.host}, {"port", settings.port}, {"user", settings.user}};
    return result;
}

std::string ShowText(const Board &board, const nlohmann::json &result)
{
    const nlohmann::json &server = result["server"];
    if (server.is_null())
        return BoardLabel(board) + ": no server\n";
    return fmt::format("{}: {}:{} as \"{}\", {}\n", BoardLabel(board),
                       ForTerminal(server["host"].get<std::string>()), server["port"].get<int>(),
                       ForTerminal(server["user"].get<std::string>()),
                       result["connected"] ? "connected" : "not connected");
}

std::string TextOf(const ServerSettings &settings)
{
    return fmt::format("{}:{} as \"{}\"", settings.host, settings.port, settings.user);
}

nlohmann::json Set(const ToolContext &context, const Board &board, const ServerSettings &settings)
{
    const ServerQuery query = MakeQuery(context, board);
    if (context.options.dryRun)
        return {{"board", BoardLabel(board)}, {"dryRun", true}, {"wanted", TextOf(settings)}};
    SetServer(query, settings);
    if (TextOf(AskServer(query)) != TextOf(settings))
        throw VerbError(ExitStatus::kVerification, "the board still has another server");
    const Clock::time_point deadline = Clock::now() + context.Timeout(kConnectPatience);
    while (!AskConnected(query) && Clock::now() < deadline)
        WaitFor(-1, 0, Clock::now() + kLookPeriod);
    return Show(context, board);
}

nlohmann::json Forget(const ToolContext &context, const Board &board)
{
    if (context.options.dryRun)
        return {{"board", BoardLabel(board)}, {"dryRun", true}, {"wanted", "no server"}};
    ForgetServer(MakeQuery(context, board));
    return Show(context, board);
}

std::string ChangeText(const Board &board, const nlohmann::json &result)
{
    if (result.contains("dryRun"))
        return BoardLabel(board) + ": would have " + ForTerminal(result["wanted"].get<std::string>()) + "\n";
    return ShowText(board, result);
}

ExitStatus RunForget(ToolContext &context, const ServerArguments &arguments)
{
    std::string boards;
    for (const std::string &name : arguments.names)
        boards += (boards.empty() ? "" : ", ") + name;
    if (!context.options.dryRun)
        Confirm(context.output, context.options.yes, "have " + boards + " forget the management server?");
    return RunOnBoards(context, arguments.names,
                       {[&](const Board &board) { return Forget(context, board); }, ChangeText});
}

} // namespace

VerbAction DefineServer(CLI::App &command)
{
    const auto arguments = std::make_shared<ServerArguments>();
    command.require_subcommand(1);
    CLI::App *const show =
        command.add_subcommand("show", "Show the management server and whether the board is connected.");
    AddBoardNames(*show, arguments->names);
    CLI::App *const set = command.add_subcommand("set", "Have boards connect to a management server.");
    set->add_option("SERVER", arguments->server, "HOST:PORT, the host as a name or an IPv4 address")
        ->required()
        ->type_name("");
    set->add_option("--user", arguments->user, "user name for the login, at most 20 bytes")
        ->required()
        ->type_name("NAME");
    AddBoardNames(*set, arguments->names);
    CLI::App *const forget =
        command.add_subcommand("forget", "Have boards disconnect and forget the server.");
    AddBoardNames(*forget, arguments->names);
    command.footer(
        "Requests go to port 8878 of the board's address. \"set\" waits up to 5 s for the connection;\n"
        "a board that is not connected by then goes on trying.");
    return [arguments, show, set](ToolContext &context) {
        if (show->parsed())
            return RunOnBoards(context, arguments->names,
                               {[&](const Board &board) { return Show(context, board); }, ShowText});
        if (!set->parsed())
            return RunForget(context, *arguments);
        const ServerSettings settings = ParseServer(*arguments);
        return RunOnBoards(context, arguments->names,
                           {[&](const Board &board) { return Set(context, board, settings); }, ChangeText});
    };
}

} // namespace ledboard
