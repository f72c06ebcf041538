// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "common/text_field.h"
#include "sessions/modem_session.h"
#include "verbs/board_tasks.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <memory>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAnswerPatience{10'000};

struct Named {
    std::uint32_t code;
    const char *word; // in JSON
    const char *text; // for people
};

constexpr Named kStates[] = {
    {wire::kModemAbsent, "absent", "no modem"},
    {wire::kModemStarting, "starting", "starting"},
    {wire::kModemSilent, "silent", "does not answer"},
    {wire::kModemNoSim, "no-sim", "no SIM"},
    {wire::kModemLocked, "locked", "the SIM wants a PIN"},
    {wire::kModemSearching, "searching", "no network"},
    {wire::kModemRegistered, "registered", "registered"},
    {wire::kModemOnline, "online", "online"},
};

constexpr Named kRegistrations[] = {
    {wire::kNotRegistered, "none", "not registered"},
    {wire::kRegisteredHome, "home", "home network"},
    {wire::kSearching, "searching", "searching"},
    {wire::kRegistrationDenied, "denied", "refused by the network"},
    {wire::kRegistrationUnknown, "unknown", "unknown"},
    {wire::kRegisteredRoaming, "roaming", "roaming"},
};

// 3GPP TS 27.007, 7.3.
constexpr Named kTechnologies[] = {
    {0, "GSM", "GSM"},         {1, "GSM-compact", "GSM compact"},
    {2, "UTRAN", "3G"},        {3, "EGPRS", "EDGE"},
    {4, "HSDPA", "3G, HSDPA"}, {5, "HSUPA", "3G, HSUPA"},
    {6, "HSPA", "3G, HSPA"},   {7, "E-UTRAN", "LTE"},
};

template <std::size_t N> const Named *Find(const Named (&table)[N], std::uint32_t code)
{
    const auto found =
        std::find_if(std::begin(table), std::end(table), [=](const Named &one) { return one.code == code; });
    return found == std::end(table) ? nullptr : found;
}

template <std::size_t N> nlohmann::json WordJson(const Named (&table)[N], std::uint32_t code)
{
    const Named *const named = Find(table, code);
    return named == nullptr ? nlohmann::json() : nlohmann::json(named->word);
}

template <std::size_t N> std::string TextFor(const Named (&table)[N], const nlohmann::json &word)
{
    for (const Named &one : table)
        if (word == one.word)
            return one.text;
    return "-";
}

nlohmann::json TextJson(std::string_view field)
{
    return field.empty() ? nlohmann::json() : nlohmann::json(ToUtf8(field));
}

nlohmann::json Status(const ToolContext &context, const Board &board)
{
    ModemSession session(board, context.options.interface, context.Timeout(kAnswerPatience));
    const wire::ModemStatusReply status = session.AskStatus();
    const std::int32_t signal = status.signal;
    const auto &address = status.address;
    nlohmann::json result = {
        {"board", BoardLabel(board)},
        {"state", WordJson(kStates, status.state)},
        {"signal", nullptr},
        {"registration", WordJson(kRegistrations, status.registration)},
        {"technology", WordJson(kTechnologies, status.technology)},
        {"attached", status.attached == 1},
        {"operator", TextJson(FieldText(status.operatorName))},
        {"manufacturer", TextJson(FieldText(status.manufacturer))},
        {"model", TextJson(FieldText(status.model))},
        {"imei", TextJson(FieldText(status.imei))},
        {"address", nullptr},
        {"lastError", TextJson(FieldText(status.lastError))},
    };
    if (signal != wire::kSignalUnknown)
        result["signal"] = signal;
    if (std::any_of(std::begin(address), std::end(address), [](std::uint8_t byte) { return byte != 0; }))
        result["address"] = fmt::format("{}", fmt::join(address, "."));
    return result;
}

std::string Shown(const nlohmann::json &value)
{
    return value.is_string() ? ForTerminal(value.get<std::string>()) : "-";
}

std::string StatusText(const Board &board, const nlohmann::json &result)
{
    const nlohmann::json &signal = result["signal"];
    return RenderFields({
        {"board", BoardLabel(board)},
        {"modem", TextFor(kStates, result["state"])},
        {"network", TextFor(kRegistrations, result["registration"])},
        {"operator", Shown(result["operator"])},
        {"technology", TextFor(kTechnologies, result["technology"])},
        {"signal", signal.is_null() ? "-" : fmt::format("{} dBm", signal.get<int>())},
        {"packet service", result["attached"] ? "attached" : "not attached"},
        {"ppp0", Shown(result["address"])},
        {"device", Shown(result["manufacturer"]) + ", " + Shown(result["model"])},
        {"IMEI", Shown(result["imei"])},
        {"last error", Shown(result["lastError"])},
    });
}

nlohmann::json TimeJson(std::int64_t seconds)
{
    constexpr std::int64_t kEnd = 253'402'300'800; // of the year 9999
    if (seconds <= 0 || seconds >= kEnd)
        return nullptr;
    return FormatUtc(std::chrono::milliseconds(std::chrono::seconds(seconds)));
}

nlohmann::json Sms(const ToolContext &context, const Board &board)
{
    ModemSession session(board, context.options.interface, context.Timeout(kAnswerPatience));
    nlohmann::json messages = nlohmann::json::array();
    for (const wire::ModemSms &message : session.AskSms())
        messages.push_back({{"time", TimeJson(message.time)},
                            {"sender", ToUtf8(FieldText(message.sender))},
                            {"text", ToUtf8(FieldText(message.text))}});
    return {{"board", BoardLabel(board)}, {"sms", messages}};
}

std::string SmsTable(const Output &output, const Board &board, const nlohmann::json &result)
{
    const nlohmann::json &messages = result["sms"];
    if (messages.empty())
        return BoardLabel(board) + ": no SMS\n";
    Table table({"TIME", "SENDER", "TEXT"});
    for (const nlohmann::json &message : messages)
        table.Add({Shown(message["time"]), Shown(message["sender"]), Shown(message["text"])});
    return BoardLabel(board) + ":\n" + table.Render(output);
}

} // namespace

VerbAction DefineModem(CLI::App &command)
{
    const auto names = std::make_shared<std::vector<std::string>>();
    command.require_subcommand(1);
    CLI::App *const status = command.add_subcommand("status", "Show the state of the modem.");
    AddBoardNames(*status, *names);
    CLI::App *const sms = command.add_subcommand("sms", "Show the last ten SMS that it has received.");
    AddBoardNames(*sms, *names);
    command.footer("Nothing on a board is changed.\n"
                   "--timeout is also the limit for every answer (10 s).");
    return [names, status](ToolContext &context) {
        if (status->parsed())
            return RunOnBoards(context, *names,
                               {[&](const Board &board) { return Status(context, board); }, StatusText});
        return RunOnBoards(context, *names,
                           {[&](const Board &board) { return Sms(context, board); },
                            [&](const Board &board, const nlohmann::json &result) {
                                return SmsTable(context.output, board, result);
                            }});
    };
}

} // namespace ledboard
