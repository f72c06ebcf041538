// SPDX-License-Identifier: MIT
#include "operator_client.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>

namespace server
{

namespace
{

using ledboard::ExitStatus;
using ledboard::Output;
using ledboard::VerbError;
using nlohmann::json;

ExitStatus StatusOf(const std::string &kind)
{
    static const std::map<std::string, ExitStatus> kStatuses = {{"done", ExitStatus::kDone},
                                                                {"usage", ExitStatus::kUsage},
                                                                {"no-such-board", ExitStatus::kNoSuchBoard},
                                                                {"refused", ExitStatus::kRefused},
                                                                {"verification", ExitStatus::kVerification}};
    const auto found = kStatuses.find(kind);
    return found == kStatuses.end() ? ExitStatus::kFailed : found->second;
}

// The connection to the running server.
class Server
{
public:
    Server(const std::string &path, const json &request) : socket_(loop_)
    {
        try {
            socket_.connect(asio::local::stream_protocol::endpoint(path));
            asio::write(socket_, asio::buffer(request.dump() + "\n"));
        } catch (const std::system_error &error) {
            throw VerbError(ExitStatus::kFailed,
                            "no ledboard-server on " + path + ": " + error.code().message());
        } catch (const json::type_error &) {
            throw VerbError(ExitStatus::kUsage, "the folder and the board must be named in UTF-8");
        }
    }

    // The next answer; an error object is thrown.
    json Next()
    {
        asio::error_code error;
        const std::size_t size = asio::read_until(socket_, asio::dynamic_buffer(received_), '\n', error);
        if (error)
            throw VerbError(ExitStatus::kFailed, "the server has ended");
        json answer = json::parse(received_.substr(0, size));
        received_.erase(0, size);
        if (answer.contains("error"))
            throw VerbError(StatusOf(answer.value("kind", "")), answer["error"]);
        return answer;
    }

private:
    asio::io_context loop_;
    asio::local::stream_protocol::socket socket_;
    std::string received_;
};

std::string Printable(const json &value)
{
    std::string text = value.is_string() ? value.get<std::string>() : value.dump();
    for (char &character : text) {
        if (static_cast<unsigned char>(character) < ' ' || character == '\x7F')
            character = '?';
    }
    return text;
}

// Progress as text: a line when the state changes, and for each 10 % of the bytes.
class ProgressLines
{
public:
    explicit ProgressLines(Output &output) : output_(output) {}

    void Show(const json &progress)
    {
        const std::string id = Printable(progress["id"]);
        const std::string state = Printable(progress["state"]);
        const std::uint64_t done = progress["done"];
        const std::uint64_t total = progress["total"];
        const std::uint64_t tenth = state == "sending" && total > 0 ? done * 10 / total : 0;
        Shown &shown = shown_[id];
        if (shown.state == state && shown.tenth == tenth)
            return;
        shown = {.state = state, .tenth = tenth};
        if (state == "sending")
            output_.Note(fmt::format("{}: {:3} % of {} bytes, {}", id,
                                     done * 100 / std::max<std::uint64_t>(total, 1), total,
                                     Printable(progress["file"])));
        else
            output_.Note(fmt::format("{}: {}", id, state));
    }

private:
    struct Shown {
        std::string state;
        std::uint64_t tenth = 0;
    };
    Output &output_;
    std::map<std::string, Shown> shown_;
};

ExitStatus OverallStatus(const json &results)
{
    std::map<ExitStatus, int> counts;
    for (const json &result : results)
        ++counts[StatusOf(result["result"])];
    if (counts.size() == 1)
        return counts.begin()->first;
    return counts.contains(ExitStatus::kDone) ? ExitStatus::kPartly : ExitStatus::kFailed;
}

std::string ResultText(const json &result)
{
    const double seconds = result["seconds"];
    const double bytes = result["bytes"];
    return fmt::
        format("{}: {}{}; {} sent, {} of them resumed, {} unchanged, {} removed; {} bytes in {:.1f} s, "
               "{:.1f} MiB/s\n",
               Printable(result["id"]), Printable(result["result"]),
               result.contains("message") ? " (" + Printable(result["message"]) + ")" : "",
               result["sent"].get<std::uint64_t>(), result["resumed"].get<std::uint64_t>(),
               result["unchanged"].get<std::uint64_t>(), result["removed"].get<std::uint64_t>(),
               result["bytes"].get<std::uint64_t>(), seconds,
               seconds > 0 ? bytes / seconds / (1024.0 * 1024.0) : 0.0);
}

constexpr const char *kBoardRow = "{:<14} {:<5} {:<22} {:<16} {:<20} {}\n";

std::string BoardText(const json &board)
{
    const json device = board["device"].is_null() ? json::object() : board["device"];
    return fmt::format(kBoardRow, Printable(board["id"]), board["connected"].get<bool>() ? "here" : "away",
                       Printable(board["peer"]), Printable(device.value("name", "-")),
                       Printable(board["heard"]).substr(0, 19) + "Z",
                       board["push"].is_null() ? "" : Printable(board["push"]));
}

ExitStatus List(const OperatorOptions &options, Output &output)
{
    const json answer = Server(options.control, {{"command", "boards"}}).Next();
    if (output.Json()) {
        output.PrintJson(answer);
        return ExitStatus::kDone;
    }
    output.Print(fmt::format(kBoardRow, "ID", "", "FROM", "NAME", "HEARD", "PUSH"));
    for (const json &board : answer["boards"])
        output.Print(BoardText(board));
    return ExitStatus::kDone;
}

ExitStatus PushTo(const OperatorOptions &options, const std::string &folder, const std::string &to,
                  Output &output)
{
    if (folder.empty())
        throw VerbError(ExitStatus::kUsage, "the folder has no name");
    const std::string path = std::filesystem::absolute(folder);
    Server server(options.control, {{"command", "push"}, {"folder", path}, {"to", to}});
    ProgressLines progress(output);
    for (;;) {
        const json answer = server.Next();
        if (answer.contains("results")) {
            if (output.Json())
                output.PrintJson(answer);
            else
                for (const json &result : answer["results"])
                    output.Print(ResultText(result));
            return OverallStatus(answer["results"]);
        }
        if (!output.Json())
            progress.Show(answer["progress"]);
        else if (!output.Quiet())
            output.PrintJson(answer);
    }
}

// Runs one verb. Prints its error and returns its status.
ExitStatus Run(const OperatorOptions &options, const std::function<ExitStatus(Output &output)> &verb)
{
    Output output("ledboard-server", options);
    try {
        return verb(output);
    } catch (const VerbError &error) {
        output.Error(error);
        return error.Status();
    } catch (const std::exception &error) {
        output.Error({ExitStatus::kFailed, error.what()});
        return ExitStatus::kFailed;
    }
}

} // namespace

ExitStatus ListBoards(const OperatorOptions &options)
{
    return Run(options, [&](Output &output) { return List(options, output); });
}

ExitStatus PushFolder(const OperatorOptions &options, const std::string &folder, const std::string &to)
{
    return Run(options, [&](Output &output) { return PushTo(options, folder, to, output); });
}

} // namespace server
