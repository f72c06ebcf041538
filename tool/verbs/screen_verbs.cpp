// SPDX-License-Identifier: MIT
#include "common/pc/text.h"
#include "sessions/settings_file.h"
#include "terminal/confirm.h"
#include "verbs/setting_task.h"
#include "verbs/verbs.h"

#include <fmt/format.h>

#include <array>
#include <optional>

namespace ledboard
{

namespace
{

std::string Bytes(const nlohmann::json &result)
{
    return fmt::format("{} bytes", result["bytes"].get<std::size_t>());
}

// Sends one file of this PC with a file transfer.
VerbAction DefineFileTransfer(CLI::App &command, wire::SettingCode code, const char *what)
{
    const auto path = std::make_shared<std::string>();
    command.add_option("FILE", *path, "file on this PC")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        const std::vector<std::byte> file = ReadLocalFile(*path);
        if (file.empty())
            throw VerbError(ExitStatus::kFailed, "'" + *path + "' is empty");
        const auto send = [&](SettingClient &client, const Board &) -> nlohmann::json {
            client.SendFile(code, file);
            client.End();
            return {{"bytes", file.size()}};
        };
        const auto text = [what](const nlohmann::json &result) {
            return fmt::format("{} stored, {}", what, Bytes(result));
        };
        return RunSettingTask(context, *arguments, {fmt::format("would store the {}", what), send, text});
    };
}

VerbAction DefineBootScreenSet(CLI::App &command)
{
    return DefineFileTransfer(command, wire::kSettingBootScreen, "boot picture");
}

VerbAction DefineBootScreenClear(CLI::App &command)
{
    const auto arguments = AddSettingArguments(command);
    return [arguments](ToolContext &context) {
        if (!context.options.dryRun)
            Confirm(context.output, context.options.yes,
                    fmt::format("remove the boot picture of {}?", fmt::join(arguments->boards, ", ")));
        const auto clear = [](SettingClient &client, const Board &) -> nlohmann::json {
            client.CommandAcknowledged(wire::kSettingClearBootScreen);
            client.End();
            return {{"cleared", true}};
        };
        const auto text = [](const nlohmann::json &) { return std::string("boot picture removed"); };
        return RunSettingTask(context, *arguments, {"would remove the boot picture", clear, text});
    };
}

VerbAction DefineLuminancePut(CLI::App &command)
{
    return DefineFileTransfer(command, wire::kSettingLuminanceFile, "luminance file");
}

std::vector<std::byte> ReadLuminance(SettingClient *client)
{
    client->Command(wire::kSettingReadLuminance);
    constexpr std::size_t kNoFile = 2; // bytes of the answer if there is no file
    std::vector<std::byte> stream = client->End();
    if (stream.size() == kNoFile)
        throw VerbError(ExitStatus::kFailed, "the board has no luminance file");
    const auto size = wire::Read<wire::U32>(stream);
    if (!size || stream.size() != sizeof *size + *size)
        throw VerbError(ExitStatus::kFailed, "the luminance file arrived incomplete");
    stream.erase(stream.begin(), stream.begin() + sizeof *size);
    return stream;
}

VerbAction DefineLuminanceGet(CLI::App &command)
{
    const auto path = std::make_shared<std::string>();
    command.add_option("FILE", *path, "where to store it on this PC")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        RequireOneBoard(*arguments, "a file takes the luminance file of one board only");
        const auto get = [&](SettingClient &client, const Board &) -> nlohmann::json {
            const std::vector<std::byte> file = ReadLuminance(&client);
            WriteLocalFile(*path, file);
            return {{"file", ToUtf8(*path)}, {"bytes", file.size()}};
        };
        const auto text = [](const nlohmann::json &result) {
            return Bytes(result) + " saved as " + ForTerminal(result["file"].get<std::string>());
        };
        return RunSettingTask(context, *arguments, {"", get, text});
    };
}

// Sends a command that a board does not reply to, and waits until the board has handled it.
SettingTask Unanswered(const std::string &plan, const std::function<void(SettingClient &)> &send,
                       const nlohmann::json &result, const std::string &done)
{
    const auto run = [=](SettingClient &client, const Board &) {
        send(client);
        client.BoardClock();
        client.End();
        return result;
    };
    return {plan, run, [done](const nlohmann::json &) { return done; }};
}

// 1 to 100. Throws VerbError(kUsage).
std::uint32_t ParsePercent(const std::string &text)
{
    const auto percent = ParseNumber(text);
    if (!percent || *percent < 1 || *percent > 100)
        throw VerbError(ExitStatus::kUsage, "'" + text + "' is not a brightness: 1 to 100, or 'show'");
    return *percent;
}

// Sets the brightness, or with nullopt leaves it, and reads it back.
nlohmann::json Brighten(SettingClient &client, std::optional<std::uint32_t> percent)
{
    if (percent)
        client.Command(wire::kSettingBrightness, wire::BytesOf(static_cast<wire::U8>(*percent)));
    client.Command(wire::kSettingReadScreen);
    const auto slots = client.Receive<std::array<wire::SettingRecord, wire::kScreenListSlots>>();
    client.End();
    const wire::SettingRecord &last = slots.back();
    nlohmann::json result = {{"brightness", nullptr}};
    if (last.id == wire::kIdBrightnessPercent)
        result["brightness"] = std::uint32_t{last.value};
    else if (percent) // a board without a settings file does not report it
        result["brightness"] = *percent;
    if (percent && result["brightness"] != *percent)
        throw VerbError(ExitStatus::kVerification,
                        fmt::format("the board reports {} %", std::uint32_t{last.value}));
    return result;
}

} // namespace

VerbAction DefineBrightness(CLI::App &command)
{
    const auto word = std::make_shared<std::string>();
    command.add_option("PERCENT", *word, "1 to 100, or 'show'")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    command.footer("The brightness is not stored: after its start a board reports 100 %.");
    return [=](ToolContext &context) {
        const auto percent = *word == "show" ? std::nullopt : std::optional(ParsePercent(*word));
        const auto run = [&](SettingClient &client, const Board &) { return Brighten(client, percent); };
        const auto text = [](const nlohmann::json &result) {
            return "brightness " + (result["brightness"].is_null() ? "unknown: the board has no settings file"
                                                                   : result["brightness"].dump() + " %");
        };
        const std::string plan = percent ? fmt::format("would set the brightness to {} %", *percent) : "";
        return RunSettingTask(context, *arguments, {plan, run, text});
    };
}

VerbAction DefineBootScreen(CLI::App &command)
{
    return DefineSubVerbs(command, {{"set", "Give the board a boot picture.", DefineBootScreenSet},
                                    {"clear", "Remove the boot picture.", DefineBootScreenClear}});
}

VerbAction DefineLuminance(CLI::App &command)
{
    return DefineSubVerbs(command, {{"get", "Save the luminance file on this PC.", DefineLuminanceGet},
                                    {"put", "Give the board a luminance file.", DefineLuminancePut}});
}

VerbAction DefineSmartSetting(CLI::App &command)
{
    command.footer("Nothing is stored; the board does not report whether a player has followed.");
    return DefineOnOff(command, "on or off", [](bool on) {
        const auto send = [on](SettingClient &client) {
            client.Command(on ? wire::kSettingSmartOn : wire::kSettingSmartOff);
        };
        const std::string state = on ? "smart setting on" : "smart setting off";
        return Unanswered("would tell the player: " + state, send, {{"smartSetting", on}}, state);
    });
}

VerbAction DefineSlantLine(CLI::App &command)
{
    command.footer("Nothing is stored; the board does not report whether a player has followed.");
    return DefineOnOff(command, "on or off", [](bool on) {
        const auto send = [on](SettingClient &client) {
            client.Command(wire::kSettingSlantLine, wire::BytesOf(wire::U32(on ? 1U : 0U)));
        };
        const std::string state = on ? "slant lines on" : "slant lines off";
        return Unanswered("would tell the player: " + state, send, {{"slantLine", on}}, state);
    });
}

VerbAction DefineFpgaFrame(CLI::App &command)
{
    const auto code = std::make_shared<std::string>();
    const auto value = std::make_shared<std::string>();
    command.add_option("CODE", *code, "0 to 255, or a parameter's name as in \"settings set --help\"")
        ->required()
        ->type_name("");
    command.add_option("VALUE", *value, "a number, 0x for hexadecimal, or WIDTHxHEIGHT")
        ->required()
        ->type_name("");
    const auto arguments = AddSettingArguments(command);
    command.footer(
        "The frame goes to the FPGA unchanged; nothing is stored on the board. With --via-session the\n"
        "board sends its stored settings after it, when the session ends.");
    return [=](ToolContext &context) {
        const auto [id, number] = ParseAssignment(*code + "=" + *value);
        const std::string what = fmt::format("frame {} with value {}", id, number);
        const auto send = [id = id, number = number](SettingClient &client) { client.Frame(id, number); };
        return RunSettingTask(context, *arguments,
                              Unanswered("would send " + what, send, {{"command", id}, {"value", number}},
                                         what + " sent"));
    };
}

} // namespace ledboard
