// SPDX-License-Identifier: MIT
#include "program/board_state.h"

#include "records/heartbeat_record.h"

#include <fmt/core.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <fstream>
#include <sstream>

namespace board
{

// "0100007F:22A6" of the kernel's table: the address as it lies in memory, the port as a number.
static std::pair<std::string, unsigned> Endpoint(const std::string &text)
{
    const std::size_t colon = text.find(':');
    if (colon != 8)
        return {"?", 0};
    const in_addr address{static_cast<in_addr_t>(std::stoul(text.substr(0, colon), nullptr, 16))};
    std::array<char, INET_ADDRSTRLEN> dotted{};
    inet_ntop(AF_INET, &address, dotted.data(), dotted.size());
    return {dotted.data(), static_cast<unsigned>(std::stoul(text.substr(colon + 1), nullptr, 16))};
}

std::vector<Connection> Connections(const VirtualBoard &board)
{
    std::vector<std::array<std::string, 3>> rows;
    std::ifstream table(fmt::format("/proc/{}/net/tcp", board.InitPid()));
    std::string number;
    std::array<std::string, 3> row; // local, remote, state
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        if (words >> number >> row[0] >> row[1] >> row[2] && row[0].find(':') == 8)
            rows.push_back(row);
    }
    std::vector<unsigned> listening;
    for (const auto &[local, remote, state] : rows) {
        if (state == "0A")
            listening.push_back(Endpoint(local).second);
    }
    std::vector<Connection> connections;
    for (const auto &[local, remote, state] : rows) {
        const unsigned port = Endpoint(local).second;
        if (state != "01" || port == wire::kSupervisorPort ||
            std::find(listening.begin(), listening.end(), port) == listening.end())
            continue;
        const auto [address, peerPort] = Endpoint(remote);
        connections.push_back({fmt::format("{}:{}", address, peerPort), port});
    }
    return connections;
}

nlohmann::json StateJson(const VirtualBoard &board)
{
    nlohmann::json connections = nlohmann::json::array();
    for (const Connection &one : Connections(board))
        connections.push_back({{"peer", one.peer}, {"port", one.port}});
    const auto exit = board.DaemonExit();
    const auto address = board.Eth0Address();
    const ModemView modem = board.TheModem().View();
    return {
        {"running", board.Running()},
        {"boots", board.Boots()},
        {"init", board.InitPid()},
        {"daemon",
         {{"running", board.DaemonRunning()},
          {"pid", board.DaemonRunning() ? nlohmann::json(board.DaemonPid()) : nlohmann::json()},
          {"exit", exit ? nlohmann::json(*exit) : nlohmann::json()},
          {"listens", board.DaemonListens()},
          {"descriptors", board.OpenDescriptors()}}},
        {"eth0",
         {{"address", address ? nlohmann::json(*address) : nlohmann::json()}, {"mac", board.BoardMac()}}},
        {"pc", {{"interface", board.PcInterface()}, {"address", board.PcAddress()}}},
        {"cable", board.CableIn()},
        {"usb", board.UsbDiskIn()},
        {"modem",
         {{"in", modem.in}, {"state", ModemText(modem)}, {"signal", modem.signal}, {"sms", modem.sms}}},
        {"player", board.ThePlayer().LoggedIn()},
        {"connections", connections},
        {"frames", board.Frames().size()},
        {"messages", board.PlayerMessages().size()},
        {"commands", board.Commands().size()},
        {"heartbeats", board.Heartbeats().size()},
    };
}

std::string ModemText(const ModemView &modem)
{
    if (!modem.in)
        return "out";
    const char *how = "in";
    if (modem.hangs)
        how = "in, hangs";
    else if (modem.sim != ModemSim::Ready)
        how = modem.sim == ModemSim::Pin ? "in, the SIM wants a PIN" : "in, no SIM";
    else if (modem.network == ModemNetwork::Home)
        how = "in, registered";
    else if (modem.network == ModemNetwork::Roaming)
        how = "in, roaming";
    else
        how = modem.network == ModemNetwork::Denied ? "in, refused by the network" : "in, searching";
    return fmt::format("{}, {} SMS", how, modem.sms);
}

static std::string DaemonText(const VirtualBoard &board)
{
    if (board.DaemonRunning())
        return fmt::format("process {}, {}, {} descriptors", board.DaemonPid(),
                           board.DaemonListens() ? "listening" : "not listening", board.OpenDescriptors());
    if (const auto exit = board.DaemonExit())
        return fmt::format("ended, status {}", *exit);
    return "not started";
}

std::vector<std::string> StateLines(const VirtualBoard &board)
{
    const std::size_t beats = board.Heartbeats().size();
    return {
        fmt::format("board   {}, booted {} time{}", board.Running() ? "on" : "off", board.Boots(),
                    board.Boots() == 1 ? "" : "s"),
        fmt::format("daemon  {}", DaemonText(board)),
        fmt::format("eth0    {}, {}, cable {}; PC {} on {}", board.Eth0Address().value_or("no address"),
                    board.BoardMac(), board.CableIn() ? "in" : "out", board.PcAddress(), board.PcInterface()),
        fmt::format("USB     disk {}; player {}; {} heartbeat{}", board.UsbDiskIn() ? "in" : "out",
                    board.ThePlayer().LoggedIn() ? "logged in" : "away", beats, beats == 1 ? "" : "s"),
        fmt::format("modem   {}", ModemText(board.TheModem().View())),
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
