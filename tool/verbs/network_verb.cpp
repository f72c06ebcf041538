// SPDX-License-Identifier: MIT
#include "common/address.h"
#include "discovery/address_change.h"
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <arpa/inet.h>

#include <charconv>
#include <memory>

namespace ledboard
{

namespace
{

// A board that finds no DHCP server takes a link-local address after some 20 s.
constexpr std::chrono::milliseconds kChangeTime{40000};
constexpr int kMinPort = 10000;
constexpr int kMaxPort = 65535;

struct NetworkArguments {
    std::vector<std::string> names;
    std::string name;  // of the one board that gets a fixed address
    std::string fixed; // ADDRESS/PREFIX
    std::string gateway;
    std::optional<int> port;
};

nlohmann::json NetworkJson(const Board &board)
{
    const nlohmann::json all = BoardJson(board);
    nlohmann::json json;
    for (const char *key : {"id", "mac", "address", "netmask", "gateway", "mode", "customPort", "interface"})
        json[key] = all[key];
    return json;
}

std::string TextOf(const nlohmann::json &value)
{
    return value.is_string() ? value.get<std::string>() : "-";
}

std::string DescribeNetwork(const Board &board, const nlohmann::json &network)
{
    return RenderFields({{"board", BoardLabel(board)},
                         {"MAC", TextOf(network["mac"])},
                         {"mode", FormatMode(board)},
                         {"address", TextOf(network["address"])},
                         {"netmask", TextOf(network["netmask"])},
                         {"gateway", TextOf(network["gateway"])},
                         {"heard on", TextOf(network["interface"])}});
}

// "fixed 10.0.0.7/24, gateway 10.0.0.1, port 12000" or "dynamic"
std::string DescribeWanted(const WantedAddressing &wanted)
{
    if (wanted.dynamic)
        return "dynamic";
    std::string text = "fixed " + Dotted(wanted.address) + ", netmask " + Dotted(wanted.netmask) +
                       ", gateway " + Dotted(wanted.gateway);
    if (wanted.port != 0)
        text += ", port " + std::to_string(wanted.port);
    return text;
}

in_addr ParseAddress(const std::string &text)
{
    in_addr address{};
    const bool isAddress = inet_pton(AF_INET, text.c_str(), &address) == 1;
    const std::uint32_t first = ntohl(address.s_addr) >> 24;
    if (!isAddress || first == 0 || first == 127 || first >= 224)
        throw VerbError(ExitStatus::kUsage, "'" + text + "' is not an address for a board or a gateway");
    return address;
}

// From ADDRESS/PREFIX and the gateway; without the port.
WantedAddressing ParseFixed(const NetworkArguments &arguments)
{
    const std::size_t slash = arguments.fixed.find('/');
    const std::string prefixText = slash == std::string::npos ? "" : arguments.fixed.substr(slash + 1);
    int prefix = 0;
    const auto [end, error] =
        std::from_chars(prefixText.data(), prefixText.data() + prefixText.size(), prefix);
    if (error != std::errc() || end != prefixText.data() + prefixText.size() || prefix < 1 || prefix > 30)
        throw VerbError(ExitStatus::kUsage, "'" + arguments.fixed +
                                                "' is not ADDRESS/PREFIX, such as "
                                                "192.168.1.50/24");
    WantedAddressing wanted;
    wanted.address = ParseAddress(arguments.fixed.substr(0, slash));
    wanted.gateway = ParseAddress(arguments.gateway);
    const std::uint32_t mask = 0xFFFFFFFFU << (32 - prefix);
    wanted.netmask = {htonl(mask)};
    for (const in_addr address : {wanted.address, wanted.gateway}) {
        const std::uint32_t host = ntohl(address.s_addr) & ~mask;
        if (host == 0 || host == ~mask)
            throw VerbError(ExitStatus::kUsage,
                            Dotted(address) +
                                " is the address of the network itself or its broadcast address");
    }
    if (((ntohl(wanted.address.s_addr) ^ ntohl(wanted.gateway.s_addr)) & mask) != 0)
        throw VerbError(ExitStatus::kUsage,
                        "the gateway " + arguments.gateway + " is not in the network of " + arguments.fixed);
    if (wanted.address.s_addr == wanted.gateway.s_addr)
        throw VerbError(ExitStatus::kUsage, "board and gateway cannot have the same address");
    return wanted;
}

std::string CheckPort(const std::string &text)
{
    int port = 0;
    const bool isNumber = CLI::detail::lexical_cast(text, port);
    return isNumber && (port == 0 || (port >= kMinPort && port <= kMaxPort))
               ? ""
               : "must be 0 (no custom port) or from 10000 to 65535";
}

ExitStatus Show(ToolContext &context, const NetworkArguments &arguments)
{
    return RunOnBoards(context, arguments.names, {NetworkJson, DescribeNetwork});
}

ExitStatus Change(ToolContext &context, const NetworkArguments &arguments,
                  const WantedAddressing &wantedOfAll)
{
    const auto run = [&](const Board &board) -> nlohmann::json {
        WantedAddressing wanted = wantedOfAll;
        // A change replaces everything, so the present custom port is sent again.
        if (!wanted.dynamic && board.addressing && !board.addressing->dynamic)
            wanted.port = board.addressing->customPort;
        wanted.port = arguments.port.value_or(wanted.port);
        nlohmann::json result = {{"id", BoardJson(board)["id"]},
                                 {"changed", false},
                                 {"wanted", DescribeWanted(wanted)},
                                 {"before", NetworkJson(board)}};
        if (context.options.dryRun || HasAddressing(board, wanted))
            return result;
        const Board found = ChangeAddressing(
            {board, wanted, context.options.interface, context.Timeout(kChangeTime),
             [&](const std::string &what) { context.output.Note(BoardLabel(board) + ": " + what); }});
        result["changed"] = true;
        result["after"] = NetworkJson(found);
        return result;
    };
    const auto text = [&](const Board &board, const nlohmann::json &result) {
        const std::string wanted = result["wanted"];
        if (result["changed"])
            return BoardLabel(board) + ": " + wanted + "; found at " + TextOf(result["after"]["address"]) +
                   "\n";
        return BoardLabel(board) + (context.options.dryRun ? ": would become " : ": is already ") + wanted +
               "\n";
    };
    return RunOnBoards(context, arguments.names, {run, text});
}

} // namespace

VerbAction DefineNetwork(CLI::App &command)
{
    const auto arguments = std::make_shared<NetworkArguments>();
    command.require_subcommand(1);
    CLI::App *const show =
        command.add_subcommand("show", "Show mode, address, mask, gateway and custom port.");
    AddBoardNames(*show, arguments->names);
    CLI::App *const dhcp =
        command.add_subcommand("dhcp",
                               "Have boards use DHCP; without a DHCP server they take a link-local address.");
    AddBoardNames(*dhcp, arguments->names);
    CLI::App *const fixed = command.add_subcommand("static", "Give one board a fixed address.");
    fixed->add_option("BOARD", arguments->name, "address, identifier, name or MAC of the board")
        ->required()
        ->type_name("");
    fixed->add_option("ADDRESS", arguments->fixed, "address with prefix length, such as 192.168.1.50/24")
        ->required()
        ->type_name("");
    fixed->add_option("--gateway", arguments->gateway, "default gateway of the board")
        ->required()
        ->type_name("ADDRESS");
    fixed
        ->add_option("--port", arguments->port,
                     "custom port, 10000 to 65535, or 0 for no custom port (the present one of a fixed "
                     "address)")
        ->check(CheckPort)
        ->type_name("PORT");
    command.footer(
        "A change is sent, checked on the board and acknowledged; then the board is found again at its\n"
        "new address. A board that has this addressing already gets no request.");
    return [arguments, show, dhcp](ToolContext &context) {
        if (show->parsed())
            return Show(context, *arguments);
        if (dhcp->parsed())
            return Change(context, *arguments, {.dynamic = true});
        arguments->names = {arguments->name};
        return Change(context, *arguments, ParseFixed(*arguments));
    };
}

} // namespace ledboard
