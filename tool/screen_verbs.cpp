// SPDX-License-Identifier: MIT
#include "screen_verbs.h"

#include "confirm.h"
#include "setting_task.h"
#include "settings_file.h"
#include "text.h"

#include <fmt/format.h>

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
            throw ToolError(ExitStatus::kFailed, "'" + *path + "' is empty");
        const auto send = [&](SettingClient &client, const Board &) -> nlohmann::json {
            if (!client.SendFile(code, file))
                throw ToolError(ExitStatus::kFailed, "the board could not store the file");
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
            Confirm(context,
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
    std::vector<std::byte> stream = client->End();
    const auto size = wire::Read<wire::U32>(stream);
    if (!size)
        throw ToolError(ExitStatus::kFailed, "the board has no luminance file");
    if (stream.size() != sizeof *size + *size)
        throw ToolError(ExitStatus::kFailed, "the luminance file came in part only");
    stream.erase(stream.begin(), stream.begin() + sizeof *size);
    return stream;
}

VerbAction DefineLuminanceGet(CLI::App &command)
{
    const auto path = std::make_shared<std::string>();
    command.add_option("FILE", *path, "where to on this PC")->required()->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        RequireOneBoard(*arguments, "a luminance file");
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

// A command without a reply, and the board's word that it has handled it.
SettingTask Told(const std::string &what, std::function<void(SettingClient &)> tell)
{
    const auto run = [=](SettingClient &client, const Board &) -> nlohmann::json {
        tell(client);
        client.BoardClock();
        client.End();
        return {{"done", what}};
    };
    return {"would say " + what, run, [what](const nlohmann::json &) { return what; }};
}

} // namespace

VerbAction DefineBrightness(CLI::App &command)
{
    const auto percent = std::make_shared<std::string>();
    command.add_option("PERCENT", *percent, "1 to 100, or 'show'")
        ->required()
        ->check(CLI::Range(1, 100) | CLI::IsMember({"show"}))
        ->type_name("");
    const auto arguments = AddSettingArguments(command);
    return [=](ToolContext &context) {
        const bool show = *percent == "show";
        const auto run = [&](SettingClient &client, const Board &) -> nlohmann::json {
            if (!show) {
                const auto value = static_cast<wire::U8>(std::stoi(*percent));
                client.Command(wire::kSettingBrightness, wire::BytesOf(value));
            }
            client.Command(wire::kSettingReadScreen);
            const auto slots = client.Receive<std::array<wire::SettingRecord, wire::kScreenListSlots>>();
            client.End();
            const wire::SettingRecord &last = slots.back();
            if (last.id != wire::kIdBrightnessPercent) // a board without settings does not say
                return {{"brightness", show ? nlohmann::json() : nlohmann::json(std::stoi(*percent))}};
            if (!show && std::to_string(last.value) != *percent)
                throw ToolError(ExitStatus::kVerification,
                                fmt::format("the board shows {} %", std::uint32_t{last.value}));
            return {{"brightness", std::uint32_t{last.value}}};
        };
        const auto text = [](const nlohmann::json &result) {
            return "brightness " +
                   (result["brightness"].is_null() ? "unknown" : result["brightness"].dump() + " %");
        };
        const std::string plan = show ? "" : "would set the brightness to " + *percent + " %";
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
    return DefineOnOff(command, "on or off", [](bool on) {
        return Told(on ? "smart setting on" : "smart setting off", [on](SettingClient &client) {
            client.Command(on ? wire::kSettingSmartOn : wire::kSettingSmartOff);
        });
    });
}

VerbAction DefineSlantLine(CLI::App &command)
{
    return DefineOnOff(command, "on or off", [](bool on) {
        return Told(on ? "slant lines on" : "slant lines off", [on](SettingClient &client) {
            client.Command(wire::kSettingSlantLine, wire::BytesOf(wire::U32(on ? 1U : 0U)));
        });
    });
}

VerbAction DefineFpgaFrame(CLI::App &command)
{
    const auto code = std::make_shared<std::string>();
    const auto value = std::make_shared<std::string>();
    command.add_option("CODE", *code, "0 to 255, or a parameter's name")->required()->type_name("");
    command.add_option("VALUE", *value, "a number, 0x for hexadecimal, or WIDTHxHEIGHT")
        ->required()
        ->type_name("");
    const auto arguments = AddSettingArguments(command);
    command.footer("The frame goes to the FPGA as it is; nothing is stored on the board.");
    return [=](ToolContext &context) {
        const auto [id, number] = ParseAssignment(*code + "=" + *value);
        const auto frame =
            Told(fmt::format("frame {} with {} sent", id, number),
                 [id = id, number = number](SettingClient &client) { client.Frame(id, number); });
        return RunSettingTask(context, *arguments, frame);
    };
}

} // namespace ledboard
