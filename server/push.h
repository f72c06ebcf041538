// SPDX-License-Identifier: MIT
// server/push.h: makes the program folder of one board equal to the source folder. Event loop thread only.
#pragma once

#include "boards.h"
#include "source_folder.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace server
{

struct PushProgress {
    std::string state; // "waiting", "comparing", "sending", …
    std::string file;
    std::uint64_t done = 0; // bytes of the files that differ
    std::uint64_t total = 0;
};

struct PushReport {
    std::string id;
    std::string result = "done"; // or "refused", "verification", "failed", "cancelled"
    std::string message;
    std::uint64_t unchanged = 0; // files
    std::uint64_t sent = 0;
    std::uint64_t resumed = 0;
    std::uint64_t removed = 0;
    std::uint64_t bytes = 0; // sent
    double seconds = 0;
    nlohmann::json Json() const;
};

class Push
{
public:
    using Observer = std::function<void(const std::string &id, const PushProgress &progress)>;

    Push(Boards &boards, std::string id, std::shared_ptr<SourceFolder> source, Observer observer);

    // Starts again whenever the board has reconnected, until all is done or has failed. Never throws.
    asio::awaitable<PushReport> Run();

    void Cancel(); // wakes a wait for the board

private:
    struct Task {
        std::string name;
        std::uint64_t offset = 0; // where sending begins
        bool maybeFolder = false; // the board has something empty there that it does not list
    };
    using Names = std::vector<std::string>;

    asio::awaitable<bool> TryOnce();
    asio::awaitable<void> Abort();
    asio::awaitable<void> WaitForBoard();
    asio::awaitable<void> AllSteps();
    asio::awaitable<void> LockDevice();
    asio::awaitable<Names> ListFiles();
    asio::awaitable<void> RemoveGone(Names listed);
    asio::awaitable<void> Remove(Names names);
    asio::awaitable<Names> FindTables(Names names);
    asio::awaitable<std::vector<Task>> CompareFiles(Names listed);
    asio::awaitable<std::map<std::string, std::string>> AskDigests(Names names);
    asio::awaitable<Task> PlanFile(std::string name);
    asio::awaitable<std::uint64_t> ReadTable(std::string name, std::string *digest);
    asio::awaitable<bool> SendFiles(std::vector<Task> tasks);
    asio::awaitable<bool> SendFile(Task task);
    asio::awaitable<bool> OpenFile(Task task);
    asio::awaitable<bool> ClearWay(Task task);
    asio::awaitable<void> SendData(Task task);
    asio::awaitable<bool> VerifyFile(Task task);
    asio::awaitable<void> Finish();

    asio::awaitable<Reply> NextReply();
    asio::awaitable<Reply> Expect(wire::RemoteReply code);
    void SendNamed(wire::RemoteRequest request, const std::string &name);
    void Show(const std::string &state, const std::string &file = "");

    Boards &boards_;
    std::shared_ptr<SourceFolder> source_;
    Observer observer_;
    std::shared_ptr<BoardLink> link_;
    PushReport report_;
    PushProgress progress_;
    std::string inTransit_; // the file that a lost connection may have left incomplete
    std::set<std::string> sentNames_;
    std::set<std::string> clearedNames_; // files for which ClearWay has removed the parents
    bool emptyFoldersRemoved_ = false;
    bool cleaned_ = false;
    bool cancelled_ = false;
};

} // namespace server
