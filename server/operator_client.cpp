// SPDX-License-Identifier: MIT
#include "operator_client.h"

#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace server
{

namespace
{

using nlohmann::json;

enum Status {
    kDone = 0,
    kFailed = 1,
    kUsage = 2,
    kNoSuchBoard = 3,
    kRefused = 5,
    kVerification = 6,
    kPartly = 7
};

class Problem : public std::runtime_error
{
public:
    Problem(int status, const std::string &kind, const std::string &text)
        : std::runtime_error(text), status_(status), kind_(kind)
    {
    }
    int Status() const { return status_; }
    const std::string &Kind() const { return kind_; }

private:
    int status_;
    std::string kind_;
};

int StatusOf(const std::string &kind)
{
    static const std::map<std::string, int> kStatuses = {{"done", kDone},
                                                         {"no-such-board", kNoSuchBoard},
                                                         {"refused", kRefused},
                                                         {"verification", kVerification}};
    const auto found = kStatuses.find(kind);
    return found == kStatuses.end() ? kFailed : found->second;
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
            throw Problem(kFailed, "failed", "no ledboard-server on " + path + ": " + error.code().message());
        } catch (const json::type_error &) {
            throw Problem(kUsage, "usage", "the folder and the board must be named in UTF-8");
        }
    }

    // The next answer; an error object is thrown.
    json Next()
    {
        asio::error_code error;
        const std::size_t size = asio::read_until(socket_, asio::dynamic_buffer(received_), '\n', error);
        if (error)
            throw Problem(kFailed, "failed", "the server has ended");
        json answer = json::parse(received_.substr(0, size));
        received_.erase(0, size);
        if (answer.contains("error"))
            throw Problem(StatusOf(answer.value("kind", "")), answer.value("kind", ""), answer["error"]);
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

int Report(const OperatorOptions &options, const Problem &problem)
{
    const json object = {
        {"error", {{"status", problem.Status()}, {"kind", problem.Kind()}, {"message", problem.what()}}}};
    if (options.json)
        fmt::print("{}\n", object.dump(-1, ' ', false, json::error_handler_t::replace));
    else
        fmt::print(stderr, "ledboard-server: {}\n", problem.what());
    return problem.Status();
}

// Progress as an operator reads it: a line when the state changes, and each 10 % of the bytes.
class ProgressLines
{
public:
    explicit ProgressLines(bool quiet) : quiet_(quiet) {}

    void Show(const json &progress)
    {
        const std::string id = Printable(progress["id"]);
        const std::string state = Printable(progress["state"]);
        const std::uint64_t done = progress["done"];
        const std::uint64_t total = progress["total"];
        const std::uint64_t tenth = state == "sending" && total > 0 ? done * 10 / total : 0;
        Shown &shown = shown_[id];
        if (quiet_ || (shown.state == state && shown.tenth == tenth))
            return;
        shown = {.state = state, .tenth = tenth};
        if (state == "sending")
            fmt::print(stderr, "{}: {:3} % of {} bytes, {}\n", id,
                       done * 100 / std::max<std::uint64_t>(total, 1), total, Printable(progress["file"]));
        else
            fmt::print(stderr, "{}: {}\n", id, state);
    }

private:
    struct Shown {
        std::string state;
        std::uint64_t tenth = 0;
    };
    bool quiet_;
    std::map<std::string, Shown> shown_;
};

int OverallStatus(const json &results)
{
    std::map<int, int> counts;
    for (const json &result : results)
        ++counts[StatusOf(result["result"])];
    if (counts.size() == 1)
        return counts.begin()->first;
    return counts.contains(kDone) ? kPartly : kFailed;
}

void PrintResult(const json &result)
{
    const double seconds = result["seconds"];
    const double bytes = result["bytes"];
    fmt::print("{}: {}{}; {} sent, {} of them resumed, {} unchanged, {} removed; {} bytes in {:.1f} s, "
               "{:.1f} MiB/s\n",
               Printable(result["id"]), Printable(result["result"]),
               result.contains("message") ? " (" + Printable(result["message"]) + ")" : "",
               result["sent"].get<std::uint64_t>(), result["resumed"].get<std::uint64_t>(),
               result["unchanged"].get<std::uint64_t>(), result["removed"].get<std::uint64_t>(),
               result["bytes"].get<std::uint64_t>(), seconds,
               seconds > 0 ? bytes / seconds / (1024.0 * 1024.0) : 0.0);
}

void PrintBoard(const json &board)
{
    const json device = board["device"].is_null() ? json::object() : board["device"];
    fmt::print("{:<14} {:<5} {:<22} {:<16} {:<20} {}\n", Printable(board["id"]),
               board["connected"].get<bool>() ? "here" : "away", Printable(board["peer"]),
               Printable(device.value("name", "-")), Printable(board["heard"]).substr(0, 19) + "Z",
               board["push"].is_null() ? "" : Printable(board["push"]));
}

} // namespace

int ListBoards(const OperatorOptions &options)
{
    try {
        const json answer = Server(options.control, {{"command", "boards"}}).Next();
        if (options.json) {
            fmt::print("{}\n", answer.dump());
            return kDone;
        }
        fmt::print("{:<14} {:<5} {:<22} {:<16} {:<20} {}\n", "ID", "", "FROM", "NAME", "HEARD", "PUSH");
        for (const json &board : answer["boards"])
            PrintBoard(board);
        return kDone;
    } catch (const Problem &problem) {
        return Report(options, problem);
    } catch (const std::exception &error) {
        return Report(options, Problem(kFailed, "failed", error.what()));
    }
}

int PushFolder(const OperatorOptions &options, const std::string &folder, const std::string &to)
{
    try {
        if (folder.empty())
            throw Problem(kUsage, "usage", "the folder has no name");
        const std::string path = std::filesystem::absolute(folder);
        Server server(options.control, {{"command", "push"}, {"folder", path}, {"to", to}});
        ProgressLines progress(options.quiet);
        for (;;) {
            const json answer = server.Next();
            if (answer.contains("results")) {
                if (options.json)
                    fmt::print("{}\n", answer.dump());
                else
                    for (const json &result : answer["results"])
                        PrintResult(result);
                return OverallStatus(answer["results"]);
            }
            if (!options.json)
                progress.Show(answer["progress"]);
            else if (!options.quiet)
                fmt::print("{}\n", answer.dump());
        }
    } catch (const Problem &problem) {
        return Report(options, problem);
    } catch (const std::exception &error) {
        return Report(options, Problem(kFailed, "failed", error.what()));
    }
}

} // namespace server
