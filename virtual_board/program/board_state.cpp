// SPDX-License-Identifier: MIT
#include "program/board_state.h"

#include "common/address.h"
#include "machine/socket_table.h"
#include "records/heartbeat_record.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/tcp.h>

#include <cctype>
#include <set>

namespace board
{

namespace
{

std::string DaemonText(const VirtualBoard &board)
{
    if (board.Daemon().Running())
        return fmt::format("process {}, {}, {} descriptors", board.Daemon().Pid(),
                           board.Daemon().Listens() ? "listening" : "not listening",
                           board.Daemon().OpenDescriptors());
    if (const auto exit = board.Daemon().Exit())
        return fmt::format("ended, status {}", *exit);
    return "not started";
}

} // namespace

std::vector<Connection> Connections(const VirtualBoard &board)
{
    const std::vector<SocketEntry> sockets = ListSockets(board.Processes().InitPid(), "tcp");
    std::set<in_port_t> listening; // network byte order
    for (const SocketEntry &one : sockets) {
        if (one.state == TCP_LISTEN)
            listening.insert(one.local.sin_port);
    }
    listening.erase(htons(wire::kSupervisorPort));
    std::vector<Connection> connections;
    for (const SocketEntry &one : sockets) {
        if (one.state == TCP_ESTABLISHED && listening.contains(one.local.sin_port))
            connections.push_back(
                {fmt::format("{}:{}", ledboard::Dotted(one.peer.sin_addr), ntohs(one.peer.sin_port)),
                 ntohs(one.local.sin_port)});
    }
    return connections;
}

nlohmann::json StateJson(const VirtualBoard &board)
{
    nlohmann::json connections = nlohmann::json::array();
    for (const Connection &one : Connections(board))
        connections.push_back({{"peer", one.peer}, {"port", one.port}});
    const auto exit = board.Daemon().Exit();
    const auto address = board.Network().Eth0Address();
    const ModemView modem = board.Modem().View();
    return {
        {"running", board.Running()},
        {"boots", board.Boots()},
        {"init", board.Processes().InitPid()},
        {"daemon",
         {{"running", board.Daemon().Running()},
          {"pid", board.Daemon().Running() ? nlohmann::json(board.Daemon().Pid()) : nlohmann::json()},
          {"exit", exit ? nlohmann::json(*exit) : nlohmann::json()},
          {"listens", board.Daemon().Listens()},
          {"descriptors", board.Daemon().OpenDescriptors()}}},
        {"eth0",
         {{"address", address ? nlohmann::json(*address) : nlohmann::json()},
          {"mac", board.Network().BoardMac()}}},
        {"pc", {{"interface", board.Network().PcInterface()}, {"address", board.Network().PcAddress()}}},
        {"cable", board.Network().CableIn()},
        {"usb", board.UsbDisk().In()},
        {"modem",
         {{"in", modem.in}, {"state", ModemText(modem)}, {"signal", modem.signal}, {"sms", modem.sms}}},
        {"player", board.Player().LoggedIn()},
        {"connections", connections},
        {"frames", board.Fpga().Frames().size()},
        {"messages", board.Player().Messages().size()},
        {"commands", board.Record().Commands().size()},
        {"heartbeats", board.Supervisor().Heartbeats().size()},
    };
}

std::string DumpJson(const nlohmann::json &document)
{
    return document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ConnectionLine(const Connection &connection)
{
    return fmt::format("{} on port {}", connection.peer, connection.port);
}

std::string ModemText(const ModemView &modem)
{
    if (!modem.in)
        return "out";
    const char *how = "in";
    if (modem.hangs)
        how = "in, hangs";
    else if (modem.sim != ModemSim::kReady)
        how = modem.sim == ModemSim::kPin ? "in, the SIM wants a PIN" : "in, no SIM";
    else if (modem.network == ModemNetwork::kHome)
        how = "in, registered";
    else if (modem.network == ModemNetwork::kRoaming)
        how = "in, roaming";
    else if (modem.network == ModemNetwork::kDataOnly)
        how = "in, registered for data only";
    else
        how = modem.network == ModemNetwork::kDenied ? "in, refused by the network" : "in, searching";
    return fmt::format("{}, {} SMS", how, modem.sms);
}

std::vector<std::string> StateLines(const VirtualBoard &board)
{
    const std::size_t beats = board.Supervisor().Heartbeats().size();
    return {
        fmt::format("board   {}, booted {} time{}", board.Running() ? "on" : "off", board.Boots(),
                    board.Boots() == 1 ? "" : "s"),
        fmt::format("daemon  {}", DaemonText(board)),
        fmt::format("eth0    {}, {}, cable {}; PC {} on {}",
                    board.Network().Eth0Address().value_or("no address"), board.Network().BoardMac(),
                    board.Network().CableIn() ? "in" : "out", board.Network().PcAddress(),
                    board.Network().PcInterface()),
        fmt::format("USB     disk {}; player {}; {} heartbeat{}", board.UsbDisk().In() ? "in" : "out",
                    board.Player().LoggedIn() ? "logged in" : "away", beats, beats == 1 ? "" : "s"),
        fmt::format("modem   {}", ModemText(board.Modem().View())),
    };
}

std::string FrameLine(const Frame &frame)
{
    const unsigned value = frame.value;
    return fmt::format("a5 {:02x} {:02x} {:02x} {:02x} {:02x} a5  {}", frame.command, value & 0xFF,
                       value >> 8 & 0xFF, value >> 16 & 0xFF, value >> 24, frame.meaning);
}

std::string MessageLine(const PlayerMessage &message)
{
    const std::string name = message.name.empty() ? fmt::format("code {}", message.code) : message.name;
    return message.value ? fmt::format("{} value {}", name, *message.value) : name;
}

std::string WordsLine(const std::vector<std::string> &words)
{
    return CleanLine(fmt::format("{}", fmt::join(words, " ")));
}

std::string CleanLine(const std::string &text)
{
    std::string clean;
    for (const char c : text) {
        if (c == '\n')
            clean += "\\n";
        else if (std::iscntrl(static_cast<unsigned char>(c)) != 0)
            clean += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        else
            clean += c;
    }
    return clean;
}

} // namespace board
