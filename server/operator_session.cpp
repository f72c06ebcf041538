// SPDX-License-Identifier: MIT
#include "operator_session.h"

#include "common/pc/output.h"
#include "push.h"

#include <asio/buffer.hpp>
#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/read_until.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>

#include <sys/socket.h>

#include <cerrno>
#include <map>

namespace server
{

namespace
{

using namespace std::chrono_literals;
using ledboard::ExitStatus;
using Socket = asio::local::stream_protocol::socket;

constexpr std::size_t kMaxRequest = 65536;
constexpr auto kProgressPeriod = 200ms;

nlohmann::json Problem(ExitStatus status, const std::string &text)
{
    return {{"error", text}, {"kind", ledboard::StatusWord(status)}};
}

// The boards that a request names; throws std::out_of_range.
std::vector<std::string> Targets(Boards &boards, const std::string &to)
{
    if (to == "all")
        return boards.ConnectedIds();
    const BoardEntry *const entry = boards.Find(to);
    if (entry == nullptr || entry->link == nullptr)
        throw std::out_of_range("board " + to + " is not connected");
    return {to};
}

// A push to several boards for one operator.
class PushSession : public std::enable_shared_from_this<PushSession>
{
public:
    PushSession(Boards &boards, const asio::any_io_executor &executor) : boards_(boards), executor_(executor)
    {
    }

    void Start(const std::vector<std::string> &ids, const std::shared_ptr<SourceFolder> &source)
    {
        for (const std::string &id : ids) {
            const auto observer = [self = weak_from_this()](const std::string &board,
                                                            const PushProgress &progress) {
                if (const auto session = self.lock())
                    session->Observe(board, progress);
            };
            auto push = std::make_shared<Push>(boards_, id, source, observer);
            pushes_.push_back(push);
            boards_.Find(id)->push = "starting";
            asio::co_spawn(executor_, RunOne(push, shared_from_this()), asio::detached);
        }
    }

    // Writes progress until every board has its result. Cancels the pushes if the operator disconnects.
    asio::awaitable<void> Report(Socket &socket)
    {
        asio::steady_timer pause(executor_);
        bool present = true;
        while (results_.size() < pushes_.size() || !changes_.empty()) {
            std::string lines;
            for (const auto &[id, progress] : changes_)
                lines += ledboard::JsonLine(ProgressJson(id, progress));
            changes_.clear();
            if (present && !lines.empty())
                present = co_await Write(socket, lines);
            if (!present)
                CancelAll();
            pause.expires_after(kProgressPeriod);
            if (results_.size() < pushes_.size())
                co_await pause.async_wait(asio::use_awaitable);
            present = present && IsThere(socket);
        }
        nlohmann::json list = nlohmann::json::array();
        for (const auto &[id, report] : results_)
            list.push_back(report.Json());
        const std::string line = ledboard::JsonLine({{"results", list}});
        if (present)
            co_await Write(socket, line);
    }

private:
    static asio::awaitable<void> RunOne(std::shared_ptr<Push> push, std::shared_ptr<PushSession> self)
    {
        PushReport report = co_await push->Run();
        self->results_[report.id] = std::move(report);
    }

    static nlohmann::json ProgressJson(const std::string &id, const PushProgress &progress)
    {
        return {{"progress",
                 {{"id", id},
                  {"state", progress.state},
                  {"file", progress.file},
                  {"done", progress.done},
                  {"total", progress.total}}}};
    }

    static asio::awaitable<bool> Write(Socket &socket, const std::string &text)
    {
        asio::error_code error;
        co_await asio::async_write(socket, asio::buffer(text),
                                   asio::redirect_error(asio::use_awaitable, error));
        co_return !error;
    }

    // False if the operator has disconnected.
    static bool IsThere(Socket &socket)
    {
        char byte;
        // An operator sends nothing during a push, so the end of the connection is all that can be read.
        const ssize_t count = recv(socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return count > 0 || (count == -1 && (errno == EAGAIN || errno == EINTR));
    }

    void CancelAll()
    {
        for (const auto &push : pushes_)
            push->Cancel();
    }

    // Of several changes within one period only the last is written.
    void Observe(const std::string &id, const PushProgress &progress) { changes_[id] = progress; }

    Boards &boards_;
    asio::any_io_executor executor_;
    std::vector<std::shared_ptr<Push>> pushes_;
    std::map<std::string, PushProgress> changes_;
    std::map<std::string, PushReport> results_;
};

// Starts the push. Null, with the reason in `problem`, if it cannot be started.
std::shared_ptr<PushSession> MakePush(Boards &boards, const asio::any_io_executor &executor,
                                      const nlohmann::json &request, nlohmann::json *problem)
{
    try {
        const std::vector<std::string> ids = Targets(boards, request.at("to"));
        for (const std::string &id : ids) {
            if (!boards.Find(id)->push.empty()) {
                *problem = Problem(ExitStatus::kRefused, "a push to " + id + " is under way");
                return nullptr;
            }
        }
        if (ids.empty())
            throw std::out_of_range("no board is connected");
        const auto source = std::make_shared<SourceFolder>(request.at("folder").get<std::string>());
        auto session = std::make_shared<PushSession>(boards, executor);
        session->Start(ids, source);
        return session;
    } catch (const std::out_of_range &error) {
        *problem = Problem(ExitStatus::kNoSuchBoard, error.what());
    } catch (const std::exception &error) {
        *problem = Problem(ExitStatus::kFailed, error.what());
    }
    return nullptr;
}

asio::awaitable<void> Answer(Socket &socket, const nlohmann::json &answer)
{
    const std::string line = ledboard::JsonLine(answer);
    co_await asio::async_write(socket, asio::buffer(line), asio::use_awaitable);
}

asio::awaitable<void> HandleRequest(Boards &boards, Socket &socket, std::string line)
{
    const nlohmann::json request = nlohmann::json::parse(line, nullptr, false);
    const std::string command = request.is_object() ? request.value("command", "") : "";
    nlohmann::json problem = Problem(ExitStatus::kUsage, "no such command");
    if (command == "boards") {
        const nlohmann::json list = {{"boards", boards.List()}};
        co_await Answer(socket, list);
        co_return;
    }
    if (command == "push") {
        const auto push = MakePush(boards, socket.get_executor(), request, &problem);
        if (push != nullptr) {
            co_await push->Report(socket);
            co_return;
        }
    }
    co_await Answer(socket, problem);
}

} // namespace

asio::awaitable<void> ServeOperator(Boards &boards, Socket socket)
{
    std::string received;
    try {
        for (;;) {
            const std::size_t size =
                co_await asio::async_read_until(socket, asio::dynamic_buffer(received, kMaxRequest), '\n',
                                                asio::use_awaitable);
            std::string line = received.substr(0, size);
            received.erase(0, size);
            co_await HandleRequest(boards, socket, std::move(line));
        }
    } catch (const std::exception &) {
        co_return; // the operator has disconnected
    }
}

} // namespace server
