// SPDX-License-Identifier: MIT
#include "program/steering.h"

#include "devices/framebuffer.h"
#include "program/board_state.h"

#include <fmt/core.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <stdexcept>

namespace board
{

using nlohmann::json;
using Words = std::vector<std::string>;

namespace
{

// The lines from the number in the second word on, if there is one: "log --follow" asks for what is new. A
// list that is shorter was emptied since then, and all of it is new.
Answer List(const std::vector<std::string> &lines, const json &items, const Words &words)
{
    std::size_t from = 0;
    if (words.size() > 1)
        std::from_chars(words[1].data(), words[1].data() + words[1].size(), from);
    if (from > lines.size())
        from = 0;
    const auto offset = static_cast<std::ptrdiff_t>(from);
    return {true,
            {lines.begin() + offset, lines.end()},
            json(json::array_t(items.begin() + offset, items.end())),
            from};
}

template <typename Item, typename Line, typename Json>
Answer ListOf(const std::vector<Item> &items, const Words &words, Line line, Json toJson)
{
    std::vector<std::string> lines;
    json all = json::array();
    for (const Item &item : items) {
        lines.push_back(line(item));
        all.push_back(toJson(item));
    }
    return List(lines, all, words);
}

json Text(const std::string &text)
{
    return json::parse(DumpJson(text));
}

// "cable in": `turn` is called with true for `on` and with false for `off`.
Answer Switch(const Words &words, const char *on, const char *off, const std::function<void(bool)> &turn)
{
    if (words.size() < 2 || (words[1] != on && words[1] != off))
        return Answer::Failure(fmt::format("{} wants {} or {}", words[0], on, off));
    turn(words[1] == on);
    return Answer::Done(words[0] + " " + words[1]);
}

Answer Usb(VirtualBoard &board, const Words &words)
{
    constexpr std::uint32_t kUsbState = 7; // SS_CMD_USB_STATE
    unsigned mebibytes = 0;                // as the last disk
    if (words.size() > 2) {
        const char *const end = words[2].data() + words[2].size();
        const auto number = std::from_chars(words[2].data(), end, mebibytes);
        if (number.ec != std::errc() || number.ptr != end || mebibytes == 0)
            return Answer::Failure("the size of a USB disk is a number of MiB");
    }
    return Switch(words, "in", "out", [&](bool in) {
        board.UsbDisk().Plug(in, mebibytes);
        board.Player().Send(kUsbState, in ? 1 : 0); // the daemon knows of the disk from the player
    });
}

void ConnectPlayer(VirtualBoard &board, bool on)
{
    board.Player().Connect(on);
    if (on && !board.Player().WaitForLogin())
        throw std::runtime_error("virtual board: the player could not log in");
}

// Of "modem WORD", if the word has no argument.
const std::map<std::string, void (*)(VirtualBoard &)> &ModemActions()
{
    static const std::map<std::string, void (*)(VirtualBoard &)> actions = {
        {"in", [](auto &board) { board.Modem().Plug(true); }},
        {"out", [](auto &board) { board.Modem().Plug(false); }},
        {"sim", [](auto &board) { board.Modem().SetSim(ModemSim::kReady); }},
        {"no-sim", [](auto &board) { board.Modem().SetSim(ModemSim::kNone); }},
        {"pin", [](auto &board) { board.Modem().SetSim(ModemSim::kPin); }},
        {"searching", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kSearching); }},
        {"registered", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kHome); }},
        {"roaming", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kRoaming); }},
        {"denied", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kDenied); }},
        {"data-only", [](auto &board) { board.Modem().SetNetwork(ModemNetwork::kDataOnly); }},
        {"hang", [](auto &board) { board.Modem().Hang(true); }},
        {"answer", [](auto &board) { board.Modem().Hang(false); }},
        {"no-ucs2", [](auto &board) { board.Modem().KnowUcs2(false); }},
        {"ucs2", [](auto &board) { board.Modem().KnowUcs2(true); }},
    };
    return actions;
}

Answer ModemSignal(VirtualBoard &board, const std::string &text)
{
    unsigned steps = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), steps);
    if (error != std::errc() || end != text.data() + text.size() || (steps > 31 && steps != 99))
        return Answer::Failure("the signal is a number from 0 to 31, or 99");
    board.Modem().SetSignal(steps);
    return Answer::Done("modem signal " + text);
}

Answer ModemDoes(VirtualBoard &board, const Words &words)
{
    if (words.size() == 3 && words[1] == "signal")
        return ModemSignal(board, words[2]);
    if (words.size() > 3 && words[1] == "sms") {
        const Words text(words.begin() + 3, words.end());
        board.Modem().Deliver(words[2], fmt::format("{}", fmt::join(text, " ")));
        return Answer::Done("the modem has an SMS");
    }
    const auto action = ModemActions().find(words.size() == 2 ? words[1] : "");
    if (action == ModemActions().end())
        return Answer::Failure(
            "modem wants in, out, sim, no-sim, pin, searching, registered, roaming, denied, "
            "data-only, signal STEPS, sms SENDER TEXT, hang, answer, no-ucs2 or ucs2");
    action->second(board);
    return Answer::Done("modem " + words[1]);
}

Answer Screenshot(VirtualBoard &board, const Words &words)
{
    if (words.size() < 2)
        return Answer::Failure("screenshot wants a file");
    unsigned device = 0;
    if (words.size() > 2 &&
        std::from_chars(words[2].data(), words[2].data() + words[2].size(), device).ec != std::errc())
        return Answer::Failure("the number of a screen is 0, 1 or 2");
    const auto picture = ReadFramebuffer(board.Root(), device);
    if (!picture)
        return Answer::Failure(fmt::format("the board has no /dev/fb{}; boot it with --screen", device));
    std::ofstream file(words[1], std::ios::binary);
    if (!(file << picture->Png()).flush())
        return Answer::Failure("cannot write " + words[1]);
    return Answer::Done(fmt::format("{} x {} pixels in {}", picture->width, picture->height, words[1]));
}

Answer Kill(VirtualBoard &board, const Words &)
{
    if (!board.Daemon().Running())
        return Answer::Failure("the daemon is not running");
    return board.Daemon().Kill() ? Answer::Done("the daemon is killed")
                                 : Answer::Failure("the daemon does not end");
}

Answer Restart(VirtualBoard &board, const Words &)
{
    board.Daemon().Restart();
    if (const auto exit = board.Daemon().Exit())
        return Answer::Failure(fmt::format("the daemon ended at once, status {}; see its log", *exit));
    return Answer::Done("the daemon is started");
}

Answer Reboot(VirtualBoard &board, const Words &)
{
    board.Reboot();
    return Answer::Done("the board is up again");
}

Answer Forget(VirtualBoard &board, const Words &)
{
    board.Forget();
    return Answer::Done("records are empty");
}

struct SwitchRow {
    const char *name, *on, *off;
    void (*turn)(VirtualBoard &, bool);
};

constexpr SwitchRow kSwitches[] = {
    {"cable", "in", "out", [](VirtualBoard &board, bool in) { board.Network().Cable(in); }},
    {"serial", "in", "out", [](VirtualBoard &board, bool in) { board.Fpga().Connect(in); }},
    {"player", "on", "off", ConnectPlayer},
    {"supervisor", "on", "off", [](VirtualBoard &board, bool on) { board.Supervisor().Listen(on); }},
    {"dhcp", "on", "off", [](VirtualBoard &board, bool on) { board.Network().DhcpServer(on); }},
};

struct VerbRow {
    const char *name;
    Answer (*run)(VirtualBoard &, const Words &);
};

constexpr VerbRow kActions[] = {
    {"usb", Usb},         {"modem", ModemDoes}, {"screenshot", Screenshot}, {"kill", Kill},
    {"restart", Restart}, {"reboot", Reboot},   {"forget", Forget},
};

json FrameJson(const Frame &frame)
{
    return {{"command", frame.command}, {"value", frame.value}, {"meaning", frame.meaning}};
}

json MessageJson(const PlayerMessage &message)
{
    return {{"code", message.code},
            {"name", message.name},
            {"value", message.value ? json(*message.value) : json()}};
}

json ConnectionJson(const Connection &connection)
{
    return {{"peer", connection.peer}, {"port", connection.port}};
}

json CallJson(const Words &call)
{
    json all = json::array();
    for (const std::string &word : call)
        all.push_back(Text(word));
    return all;
}

constexpr VerbRow kReports[] = {
    {"state",
     [](VirtualBoard &board, const Words &) {
         return Answer{true, StateLines(board), StateJson(board), 0};
     }},
    {"sessions",
     [](VirtualBoard &board, const Words &words) {
         return ListOf(Connections(board), words, ConnectionLine, ConnectionJson);
     }},
    {"log", [](VirtualBoard &board,
               const Words &words) { return ListOf(board.Record().Log(), words, std::identity(), Text); }},
    {"frames", [](VirtualBoard &board,
                  const Words &words) { return ListOf(board.Fpga().Frames(), words, FrameLine, FrameJson); }},
    {"at", [](VirtualBoard &board,
              const Words &words) { return ListOf(board.Modem().Commands(), words, CleanLine, Text); }},
    {"messages",
     [](VirtualBoard &board, const Words &words) {
         return ListOf(board.Player().Messages(), words, MessageLine, MessageJson);
     }},
    {"commands",
     [](VirtualBoard &board, const Words &words) {
         return ListOf(board.Record().Commands(), words, CleanLine, Text);
     }},
    {"calls",
     [](VirtualBoard &board, const Words &words) {
         return ListOf(board.Record().StandInCalls(), words, WordsLine, CallJson);
     }},
};

// Nullopt if the table has no such verb.
std::optional<Answer> RunVerb(std::span<const VerbRow> table, VirtualBoard &board, const Words &words)
{
    const auto found = std::ranges::find(table, words.front(), &VerbRow::name);
    if (found == table.end())
        return std::nullopt;
    return found->run(board, words);
}

std::optional<Answer> RunSwitch(VirtualBoard &board, const Words &words)
{
    const auto found = std::ranges::find(kSwitches, words.front(), &SwitchRow::name);
    if (found == std::end(kSwitches))
        return std::nullopt;
    return Switch(words, found->on, found->off, [&](bool on) { found->turn(board, on); });
}

} // namespace

Answer Steer(VirtualBoard &board, const Words &words)
{
    if (words.empty())
        return Answer::Failure("no command");
    try {
        if (auto answer = RunSwitch(board, words))
            return *answer;
        if (auto answer = RunVerb(kActions, board, words))
            return *answer;
        if (auto answer = RunVerb(kReports, board, words))
            return *answer;
    } catch (const std::exception &error) {
        return Answer::Failure(error.what());
    }
    return Answer::Failure("no such command: " + words.front());
}

} // namespace board
