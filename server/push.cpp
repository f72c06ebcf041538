// SPDX-License-Identifier: MIT
#include "push.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace server
{

namespace
{

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;
constexpr auto kReplyLimit = 5min; // a board reads a large file for its digest
constexpr auto kAbortLimit = 10s;  // for the whole unlocking

// This size must never change: a board's reception table of an incomplete file counts chunks. Two chunks with
// their headers fill the board's buffer, so one is on its way while the other is stored.
constexpr std::size_t kChunkSize = 4556;
constexpr std::size_t kWindow = wire::kRemoteBufferSize;
constexpr std::size_t kChunkPacket = sizeof(wire::RemoteChunkRequest) + kChunkSize;
static_assert(2 * kChunkPacket == kWindow);

constexpr std::size_t kDigestsInFlight = kWindow / sizeof(wire::RemoteNamePacket);
constexpr std::size_t kMaxNames = 1'000'000; // in a board's listing

// The digest that a board reports for an empty file, and for a folder, which opens and reads like one.
constexpr char kEmptyDigest[] = "d41d8cd98f00b204";

class PushFailure : public std::runtime_error
{
public:
    PushFailure(std::string result, const std::string &message)
        : std::runtime_error(message), result_(std::move(result))
    {
    }
    const std::string &Result() const { return result_; }

private:
    std::string result_;
};

BadPacket Misplaced(const Reply &reply, wire::RemoteReply expected)
{
    return BadPacket("reply " + std::to_string(reply.code) + " instead of " + std::to_string(expected));
}

// The folders above a name on the board.
std::vector<std::string> ParentsOf(const std::string &name)
{
    std::vector<std::string> parents;
    for (std::size_t end = name.find('/'); end != std::string::npos; end = name.find('/', end + 1))
        parents.push_back(name.substr(0, end));
    return parents;
}

} // namespace

nlohmann::json PushReport::Json() const
{
    nlohmann::json json = {{"id", id},       {"result", result},   {"unchanged", unchanged},
                           {"sent", sent},   {"resumed", resumed}, {"removed", removed},
                           {"bytes", bytes}, {"seconds", seconds}};
    if (!message.empty())
        json["message"] = message;
    return json;
}

Push::Push(Boards &boards, std::string id, std::shared_ptr<SourceFolder> source, Observer observer)
    : boards_(boards), source_(std::move(source)), observer_(std::move(observer))
{
    report_.id = std::move(id);
}

void Push::Cancel()
{
    if (std::exchange(cancelled_, true))
        return;
    if (link_ != nullptr)
        link_->Wake();
    boards_.Notify();
}

asio::awaitable<PushReport> Push::Run()
{
    const auto begin = Clock::now();
    while (!co_await TryOnce()) {
    }
    report_.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    if (BoardEntry *const entry = boards_.Find(report_.id))
        entry->push.clear();
    co_return report_;
}

// False if the connection was lost: try again.
asio::awaitable<bool> Push::TryOnce()
{
    try {
        co_await WaitForBoard();
        co_await AllSteps();
    } catch (const LinkLost &) {
        co_return false;
    } catch (const BadPacket &error) {
        link_->Close();
        report_.result = "failed";
        report_.message = error.what();
    } catch (const PushFailure &error) {
        report_.result = error.Result();
        report_.message = error.what();
    } catch (const std::exception &error) {
        report_.result = "failed";
        report_.message = error.what();
    }
    if (report_.result != "done" && report_.result != "refused" && link_ != nullptr)
        co_await Abort();
    co_return true;
}

// Unlocks the board without a finish. Then waits for the end of a listing, after which no reply is left that
// the next push would take for its own.
asio::awaitable<void> Push::Abort()
{
    link_->Send(MakeRequest(report_.id, wire::kRemoteUnlock));
    link_->Send(MakeRequest(report_.id, wire::kRemoteListVideos));
    const auto deadline = Clock::now() + kAbortLimit;
    try {
        for (std::vector<std::string> names; names.size() <= kMaxNames && Clock::now() < deadline;) {
            const std::optional<Reply> reply = co_await link_->NextReply(deadline);
            if (reply && reply->code == wire::kRemoteVideosReply && TakeNames(*reply, &names))
                co_return;
        }
    } catch (const std::exception &) { // lost, silent, or invalid
    }
    link_->Close(); // which ends the lock as well
}

asio::awaitable<void> Push::WaitForBoard()
{
    for (;;) {
        if (cancelled_)
            throw PushFailure("cancelled", "cancelled");
        const BoardEntry *const entry = boards_.Find(report_.id);
        if (entry != nullptr && entry->link != nullptr && !entry->link->Closed() && entry->link != link_) {
            link_ = entry->link;
            co_return;
        }
        Show("waiting");
        co_await boards_.Change();
    }
}

asio::awaitable<void> Push::AllSteps()
{
    co_await LockDevice();
    const Names listed = co_await ListFiles();
    co_await RemoveGone(listed);
    for (bool isComplete = false; !isComplete;) {
        const std::vector<Task> tasks = co_await CompareFiles(listed);
        isComplete = co_await SendFiles(tasks);
    }
    co_await Finish();
}

asio::awaitable<void> Push::LockDevice()
{
    Show("locking");
    link_->Send(MakeRequest(report_.id, wire::kRemoteLock));
    const Reply reply = co_await Expect(wire::kRemoteLockReply);
    if (ReplyWord(reply) != wire::kRemoteSuccess)
        throw PushFailure("refused", "another user has locked the board");
}

asio::awaitable<Push::Names> Push::ListFiles()
{
    Show("listing");
    link_->Send(MakeRequest(report_.id, wire::kRemoteListFiles));
    Names names;
    for (bool last = false; !last;) {
        const Reply reply = co_await Expect(wire::kRemoteFilesReply);
        last = TakeNames(reply, &names);
        if (names.size() > kMaxNames)
            throw BadPacket("a listing without an end");
    }
    co_return names;
}

asio::awaitable<void> Push::RemoveGone(Names listed)
{
    std::erase_if(listed, [this](const std::string &name) { return source_->Files().contains(name); });
    if (listed.empty())
        co_return;
    Show("removing");
    const Names tables = co_await FindTables(listed);
    co_await Remove(listed);
    co_await Remove(tables);
    report_.removed += listed.size();
}

asio::awaitable<void> Push::Remove(Names names)
{
    for (std::string &request : MakeRemovals(report_.id, names)) {
        link_->Send(std::move(request));
        co_await Expect(wire::kRemoteRemoveReply);
    }
}

// The reception tables of these files. Boards do not list them, but report their digests.
asio::awaitable<Push::Names> Push::FindTables(Names names)
{
    const auto canBeAsked = [](const std::string &name) { return name.size() < wire::kRemoteNameSize; };
    for (std::string &name : names)
        name += wire::kTableSuffix;
    Names asked;
    std::copy_if(names.begin(), names.end(), std::back_inserter(asked), canBeAsked);
    std::map<std::string, std::string> digests = co_await AskDigests(asked);
    std::erase_if(names, [&](const std::string &name) { return canBeAsked(name) && digests[name].empty(); });
    co_return names;
}

// The files to send: those that the board does not have, or has incomplete or with another content. All names
// are asked for, because boards have files that they do not list.
asio::awaitable<std::vector<Push::Task>> Push::CompareFiles(Names listed)
{
    Show("comparing");
    std::sort(listed.begin(), listed.end());
    Names names;
    for (const auto &[name, file] : source_->Files())
        names.push_back(name);
    const std::map<std::string, std::string> digests = co_await AskDigests(names);
    std::vector<Task> tasks;
    Names unchanged;
    for (const auto &[name, digest] : digests) {
        const bool maybeFolder =
            digest == kEmptyDigest && !std::binary_search(listed.begin(), listed.end(), name);
        if (digest.empty() || maybeFolder) {
            tasks.push_back({.name = name, .offset = 0, .maybeFolder = maybeFolder});
            continue;
        }
        Show("comparing", name);
        const FileFacts facts = co_await source_->Facts(name, source_->Files().at(name).size);
        if (digest == facts.digest && name != inTransit_) {
            unchanged.push_back(name);
            continue;
        }
        Task task = co_await PlanFile(name);
        tasks.push_back(std::move(task));
    }
    report_.unchanged = static_cast<std::uint64_t>(
        std::count_if(unchanged.begin(), unchanged.end(),
                      [this](const std::string &name) { return !sentNames_.contains(name); }));
    const Names tables = co_await FindTables(unchanged);
    co_await Remove(tables);
    co_return tasks;
}

// The digests by name; empty for a name that does not exist.
asio::awaitable<std::map<std::string, std::string>> Push::AskDigests(Names names)
{
    std::map<std::string, std::string> digests;
    std::size_t asked = 0;
    for (std::size_t answered = 0; answered < names.size(); ++answered) {
        for (; asked < names.size() && asked - answered < kDigestsInFlight; ++asked)
            SendNamed(wire::kRemoteGetMd5, names[asked]);
        const Reply reply = co_await Expect(wire::kRemoteMd5Reply);
        digests[names[answered]] = ReplyDigest(reply);
    }
    co_return digests;
}

// Where sending begins for a file that the board has with another content: after the part that it has, if
// table and digest agree on that part.
asio::awaitable<Push::Task> Push::PlanFile(std::string name)
{
    std::string onBoard;
    const std::uint64_t chunks = co_await ReadTable(name, &onBoard);
    const std::uint64_t size = source_->Files().at(name).size;
    if (chunks == 0 || chunks > (size + kChunkSize - 1) / kChunkSize)
        co_return Task{.name = name, .offset = 0};
    const std::uint64_t offset = std::min(chunks * kChunkSize, size);
    const FileFacts facts = co_await source_->Facts(name, offset);
    co_return Task{.name = name, .offset = facts.digest == onBoard ? offset : 0};
}

// The number of chunks in the board's table. Without a table a board does not answer, so the digest is
// requested at the same time: if its answer comes first, there is no table.
asio::awaitable<std::uint64_t> Push::ReadTable(std::string name, std::string *digest)
{
    SendNamed(wire::kRemoteGetTable, name);
    SendNamed(wire::kRemoteGetMd5, name);
    Reply reply = co_await NextReply();
    std::uint64_t chunks = 0;
    const bool hasTable = reply.code == wire::kRemoteTableReply;
    std::size_t piece = hasTable ? ReplyTableLength(reply) : 0;
    if (hasTable)
        reply = co_await NextReply();
    if (reply.code != wire::kRemoteMd5Reply)
        throw Misplaced(reply, wire::kRemoteMd5Reply);
    *digest = ReplyDigest(reply);
    while (piece != 0) {
        chunks += piece;
        SendNamed(wire::kRemoteGetTable, name);
        const Reply more = co_await Expect(wire::kRemoteTableReply);
        piece = ReplyTableLength(more);
    }
    co_return chunks;
}

// False if files were removed from the board, so that all have to be compared again.
asio::awaitable<bool> Push::SendFiles(std::vector<Task> tasks)
{
    progress_.done = progress_.total = 0;
    for (const Task &task : tasks) {
        progress_.total += source_->Files().at(task.name).size;
        progress_.done += task.offset;
    }
    for (const Task &task : tasks) {
        const bool isSent = co_await SendFile(task);
        if (!isSent)
            co_return false;
    }
    co_return true;
}

asio::awaitable<bool> Push::SendFile(Task task)
{
    for (int attempt = 1;; ++attempt) {
        inTransit_ = task.name;
        const bool isOpen = co_await OpenFile(task);
        if (!isOpen) {
            const bool isClear = co_await ClearWay(task);
            if (!isClear)
                throw PushFailure("failed", "the board cannot open " + task.name);
            co_return false;
        }
        co_await SendData(task);
        Show("verifying", task.name);
        const bool verified = co_await VerifyFile(task);
        if (verified)
            break;
        if (attempt == 2)
            throw PushFailure("verification",
                              "the board's copy of " + task.name + " differs from what was sent");
        progress_.done -= source_->Files().at(task.name).size;
        task.offset = 0;
    }
    inTransit_.clear();
    sentNames_.insert(task.name);
    report_.sent = sentNames_.size();
    report_.resumed += task.offset > 0 ? 1 : 0;
    co_return true;
}

asio::awaitable<bool> Push::OpenFile(Task task)
{
    SendNamed(task.offset > 0 ? wire::kRemoteResume : wire::kRemoteCreate, task.name);
    const Reply reply = co_await Expect(wire::kRemoteOpenReply);
    co_return ReplyWord(reply) == wire::kRemoteSuccess;
}

// Removes what may prevent a file from being opened: a folder with its name, or a file with the name of its
// folder. True if something was removed. A board removes a single file by its name, empty folders only
// together with all files that are not videos, and a folder that is not empty only with the whole program.
asio::awaitable<bool> Push::ClearWay(Task task)
{
    Show("clearing", task.name);
    if (task.maybeFolder && !std::exchange(emptyFoldersRemoved_, true)) {
        link_->Send(MakeRequest(report_.id, wire::kRemoteRemoveNotVideo));
        co_await Expect(wire::kRemoteNotVideoReply);
        co_return true;
    }
    if (task.maybeFolder && !std::exchange(cleaned_, true)) {
        link_->Send(MakeRequest(report_.id, wire::kRemoteClean));
        co_await Expect(wire::kRemoteCleanReply);
        co_return true;
    }
    Names parents = ParentsOf(task.name);
    const std::map<std::string, std::string> digests = co_await AskDigests(parents);
    std::erase_if(parents, [&digests](const std::string &parent) {
        return digests.at(parent).empty() || digests.at(parent) == kEmptyDigest;
    });
    if (parents.empty() || !clearedNames_.insert(task.name).second)
        co_return false;
    co_await Remove(parents);
    co_return true;
}

asio::awaitable<void> Push::SendData(Task task)
{
    const SourceFile &file = source_->Files().at(task.name);
    const SourceReader reader(file);
    std::deque<std::size_t> inFlight;
    for (std::uint64_t offset = task.offset; offset < file.size || !inFlight.empty();) {
        while (offset < file.size && (inFlight.size() + 1) * kChunkPacket <= kWindow) {
            std::string data =
                reader.Read(offset, static_cast<std::size_t>(
                                        std::min<std::uint64_t>(kChunkSize, file.size - offset)));
            if (data.empty())
                throw PushFailure("failed", task.name + " became shorter");
            link_->Send(MakeChunk(report_.id, data));
            inFlight.push_back(data.size());
            offset += data.size();
        }
        const Reply reply = co_await Expect(wire::kRemoteDataReply);
        if (ReplyWord(reply) != wire::kRemoteSuccess)
            throw PushFailure("failed", "the board cannot store " + task.name);
        progress_.done += inFlight.front();
        report_.bytes += inFlight.front();
        inFlight.pop_front();
        Show("sending", task.name);
    }
}

// Closes the file. The board's CRC covers what arrived since it was opened: all of a new file, but only the
// rest of a resumed one, whose digest is asked for instead.
asio::awaitable<bool> Push::VerifyFile(Task task)
{
    const std::uint64_t size = source_->Files().at(task.name).size;
    SendNamed(wire::kRemoteClose, task.name);
    const Reply closed = co_await Expect(wire::kRemoteCloseReply);
    const FileFacts facts = co_await source_->Facts(task.name, size);
    if (task.offset == 0)
        co_return ReplyWord(closed) == facts.crc;
    SendNamed(wire::kRemoteGetMd5, task.name);
    const Reply reply = co_await Expect(wire::kRemoteMd5Reply);
    co_return ReplyDigest(reply) == facts.digest;
}

asio::awaitable<void> Push::Finish()
{
    link_->Send(MakeRequest(report_.id, wire::kRemoteFinish));
    co_await Expect(wire::kRemoteFinishReply);
    link_->Send(MakeRequest(report_.id, wire::kRemoteUnlock));
    Show("done");
}

asio::awaitable<Reply> Push::NextReply()
{
    const auto deadline = Clock::now() + kReplyLimit;
    for (;;) {
        if (cancelled_)
            throw PushFailure("cancelled", "cancelled");
        std::optional<Reply> reply = co_await link_->NextReply(deadline);
        if (reply)
            co_return std::move(*reply);
    }
}

asio::awaitable<Reply> Push::Expect(wire::RemoteReply code)
{
    Reply reply = co_await NextReply();
    if (reply.code != static_cast<std::uint32_t>(code))
        throw Misplaced(reply, code);
    co_return reply;
}

void Push::SendNamed(wire::RemoteRequest request, const std::string &name)
{
    link_->Send(MakeNameRequest(report_.id, request, name));
}

void Push::Show(const std::string &state, const std::string &file)
{
    progress_.state = state;
    progress_.file = file;
    if (BoardEntry *const entry = boards_.Find(report_.id))
        entry->push = file.empty() ? state : state + " " + file;
    observer_(report_.id, progress_);
}

} // namespace server
