// SPDX-License-Identifier: MIT
// ledboard-server with virtual boards, and with boards that the test plays.
#include "board_test.h"
#include "ledboard_run.h"
#include "player_codes.h"
#include "remote_packets.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace
{

constexpr char kControl[] = "/run/test-server.sock";
constexpr char kFolder[] = "/home/root/plexa_data/factory/";
constexpr std::size_t kChunkSize = 4556; // bytes of a file in one packet of the server

// Bytes that do not repeat: a chunk in a wrong place makes a difference.
std::string Film(std::size_t size, unsigned seed)
{
    std::string bytes(size, '\0');
    std::uint32_t state = seed;
    for (char &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

class Server : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::remove_all(source_);
        fs::create_directories(source_);
        server_ = std::make_unique<LedboardRun>(std::vector<std::string>{"run", "--listen", "0.0.0.0:7001",
                                                                         "--control", kControl, "--user",
                                                                         "operator"},
                                                "", "ledboard-server");
        Peer probe;
        for (int tries = 0; tries < 500 && !probe.Connected(); ++tries) {
            probe = Peer::Connect("127.0.0.1", 7001);
            usleep(10000);
        }
        ASSERT_TRUE(probe.Connected());
    }

    void TearDown() override
    {
        boards_.clear();
        kill(server_->Pid(), SIGTERM);
        const LedboardResult result = server_->Wait();
        EXPECT_EQ(result.status, 0);
        if (HasFailure())
            std::fprintf(stderr, "--- the server's log:\n%s---\n", result.err.c_str());
    }

    board::VirtualBoard &AddBoard(unsigned number, board::Options options = {})
    {
        options.number = number;
        options.files["/usr/share/id/config"] = "K3-000000000" + std::to_string(number);
        options.files["/home/root/plexa_data/remote_server"] =
            "ip=10.20." + std::to_string(30 + number) + ".1\nport=7001\nusername=operator\n";
        options.folders.push_back(kFolder);
        boards_.push_back(std::make_unique<board::VirtualBoard>(options));
        boards_.back()->Boot();
        return *boards_.back();
    }

    void Source(const std::string &name, const std::string &content) const
    {
        fs::create_directories(fs::path(source_ + name).parent_path());
        std::ofstream(source_ + name, std::ios::binary) << content;
    }

    static LedboardResult Ask(std::vector<std::string> words)
    {
        words.insert(words.end(), {"--control", kControl, "--json"});
        return LedboardRun(words, "", "ledboard-server").Wait();
    }

    static nlohmann::json LastLine(const std::string &text)
    {
        const std::string lines = text.substr(0, text.size() - 1);
        return nlohmann::json::parse(lines.substr(lines.rfind('\n') + 1));
    }

    static std::size_t Connected()
    {
        std::size_t count = 0;
        const nlohmann::json answer = nlohmann::json::parse(Ask({"boards"}).out);
        for (const auto &entry : answer["boards"])
            count += entry["connected"] == true && !entry["device"].is_null() ? 1 : 0;
        return count;
    }

    static struct stat Status(const board::VirtualBoard &board, const std::string &path)
    {
        struct stat status = {};
        stat((board.Root().Folder() + path).c_str(), &status);
        return status;
    }

    LedboardResult Push(const std::string &to) const { return Ask({"push", source_, "--to", to, "--quiet"}); }

    // A board played by the test, logged in.
    static Peer FakeBoard(const std::string &user = "operator")
    {
        Peer peer = Peer::Connect("127.0.0.1", 7001);
        EXPECT_TRUE(peer.Send(RemoteLogin(user, "K1-FAKE")));
        return peer;
    }

    static std::string FakeReply(std::uint32_t code, const std::string &data)
    {
        const std::string noId = Zeros(14);
        return SessionPacket(kRemoteHeaderSize + data.size(), code, noId, data);
    }

    std::string source_ = "/run/source/";
    std::unique_ptr<LedboardRun> server_;
    std::vector<std::unique_ptr<board::VirtualBoard>> boards_;
};

} // namespace

TEST_F(Server, PushesOnlyWhatDiffersAndRemovesWhatIsGone)
{
    const std::map<std::string, std::string> program = {{"same.txt", "same"},
                                                        {"differs.txt", "new"},
                                                        {"empty", ""},
                                                        {"sub/it's a film.mp4", Film(700'001, 1)},
                                                        {"sub/chunk.mp4", Film(kChunkSize, 2)},
                                                        {"sub/chunks.mp4", Film(2 * kChunkSize, 3)},
                                                        {".hidden/.file", "not listed"},
                                                        {"caf\xE9/na\xEFve", "nor is this"}};
    for (const auto &[name, content] : program)
        Source(name, content);
    fs::rename(source_ + "empty", "/run/elsewhere");
    fs::create_symlink("/run/elsewhere", source_ + "empty");
    board::Options options;
    options.files[std::string(kFolder) + "same.txt"] = "same";
    options.files[std::string(kFolder) + "same.txt.tarvo.bak"] = "1";
    options.files[std::string(kFolder) + "gone.mp4.tarvo.bak"] = "11";
    options.files[std::string(kFolder) + "differs.txt"] = "old";
    options.files[std::string(kFolder) + "gone.mp4"] = "gone";
    options.files[std::string(kFolder) + "deep/gone, too"] = "gone";
    board::VirtualBoard &board = AddBoard(0, options);
    ASSERT_TRUE(board.WaitFor([] { return Connected() == 1; }));

    LedboardResult result = Push("K3-0000000000");
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    nlohmann::json report = LastLine(result.out)["results"][0];
    EXPECT_EQ(report["result"], "done");
    EXPECT_EQ(report["unchanged"], 1);
    EXPECT_EQ(report["sent"], 7);
    EXPECT_EQ(report["removed"], 2);
    EXPECT_EQ(report["resumed"], 0);
    for (const auto &[name, content] : program)
        EXPECT_TRUE(board.Root().Read(kFolder + name) == content) << name;
    EXPECT_FALSE(board.Root().Exists(std::string(kFolder) + "gone.mp4"));
    EXPECT_FALSE(board.Root().Exists(std::string(kFolder) + "deep/gone, too"));
    EXPECT_EQ(board.Run("find /home/root/plexa_data/factory -name '*.bak'").output, "");
    EXPECT_TRUE(board.Player().WaitForMessage(kPlayerRecvEnd));
    EXPECT_EQ(board.Player().Messages().size(), 2U) << "begun and ended, not left unfinished";

    result = Push("all");
    report = LastLine(result.out)["results"][0];
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(report["unchanged"], 8);
    EXPECT_EQ(report["bytes"], 0);
    EXPECT_EQ(Push("K3-0000000009").status, 3);
    EXPECT_EQ(Ask({"push", "/run/nowhere", "--to", "all"}).status, 1);
    const nlohmann::json entry = nlohmann::json::parse(Ask({"boards"}).out)["boards"][0];
    EXPECT_EQ(entry["user"], "operator");
    EXPECT_EQ(entry["device"]["address"], "10.20.30.2");
}

TEST_F(Server, FoldersThatBecomeFilesAndFilesThatBecomeFolders)
{
    const std::string name = kFolder;
    for (const bool hasHiddenContent : {false, true}) {
        board::Options options;
        options.files[name + "film.mp4"] = "the same";
        options.files[name + "text"] = "the same";
        options.files[name + "becomes file/old"] = "x";
        options.files[name + "becomes folder"] = "x";
        options.files[name + ".becomes folder"] = "x";
        options.folders.push_back(name + "becomes empty");
        if (hasHiddenContent)
            options.files[name + "becomes file/.hidden"] = "x";
        board::VirtualBoard &board = AddBoard(hasHiddenContent ? 1 : 0, options);
        const std::map<std::string, std::string> program = {{"film.mp4", "the same"},
                                                            {"text", "the same"},
                                                            {"becomes file", "a file"},
                                                            {"becomes folder/new", ""},
                                                            {".becomes folder/new", "\n"},
                                                            {"becomes empty", ""}};
        for (const auto &[file, content] : program)
            Source(file, content);
        ASSERT_TRUE(board.WaitFor([&] { return Connected() == boards_.size(); }));
        const struct stat before = Status(board, name + "film.mp4");
        const LedboardResult result = Push(hasHiddenContent ? "K3-0000000001" : "K3-0000000000");
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        for (const auto &[file, content] : program)
            EXPECT_EQ(board.Root().TryRead(name + file), content) << file;
        EXPECT_EQ(Status(board, name + "film.mp4").st_ino == before.st_ino, !hasHiddenContent)
            << "videos are sent again only when there is no other way";
    }
}

TEST_F(Server, TransferIsResumedAfterTheBoardWasKilled)
{
    const std::string film = Film(30'000'000, 4);
    Source("film.mp4", film);
    board::VirtualBoard &first = AddBoard(0);
    board::VirtualBoard &second = AddBoard(1);
    ASSERT_TRUE(first.WaitFor([] { return Connected() == 2; }));
    const LedboardRun push({"push", source_, "--to", "all", "--control", kControl, "--json", "--quiet"}, "",
                           "ledboard-server");
    const std::string table = std::string(kFolder) + "film.mp4.tarvo.bak";
    ASSERT_TRUE(second.WaitFor([&] { return second.Root().TryRead(table).value_or("").size() > 500; }, 20s));
    second.Daemon().Kill();
    const std::size_t had = second.Root().Read(table).size() * kChunkSize;
    // A board that is killed between a chunk and its mark has more than its table says; it would get the film
    // from its start.
    second.Run("truncate -s " + std::to_string(had) + " " + kFolder + "film.mp4");
    second.Daemon().Start();
    const LedboardResult result = push.Wait();
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    const nlohmann::json results = LastLine(result.out)["results"];
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0]["resumed"], 0);
    EXPECT_EQ(results[0]["bytes"], film.size());
    EXPECT_EQ(results[1]["resumed"], 1);
    EXPECT_LT(results[1]["bytes"], film.size() + 500 * kChunkSize)
        << "the part that was there is not sent again";
    EXPECT_GE(results[1]["bytes"], film.size() - had);
    for (board::VirtualBoard *const board : {&first, &second})
        EXPECT_TRUE(board->Root().Read(std::string(kFolder) + "film.mp4") == film);

    // The start of another film is sent again.
    second.Root().Write(std::string(kFolder) + "film.mp4", film.substr(0, kChunkSize) + "x");
    second.Root().Write(table, "1");
    const nlohmann::json again = LastLine(Push("K3-0000000001").out)["results"][0];
    EXPECT_EQ(again["result"], "done");
    EXPECT_EQ(again["bytes"], film.size());
}

TEST_F(Server, FullDiskIsReportedAndNothingIsLost)
{
    board::Options options;
    options.dataMebibytes = 4;
    board::VirtualBoard &board = AddBoard(0, options);
    const std::string folder = kFolder;
    board.Root().Write(folder + "a.txt", "old");
    board.Root().Write("/home/root/plexa_data/fill", std::string(2'000'000, 'x'));
    const std::string film = Film(3'000'000, 5);
    Source("a.txt", "new");
    Source("film.mp4", film);
    ASSERT_TRUE(board.WaitFor([] { return Connected() == 1; }));
    LedboardResult result = Push("all");
    EXPECT_EQ(result.status, 1);
    nlohmann::json report = LastLine(result.out)["results"][0];
    EXPECT_EQ(report["message"], "the board cannot store film.mp4");
    EXPECT_TRUE(board.Player().WaitForMessage(kPlayerRecvNoFinish));
    EXPECT_EQ(board.Root().Read(folder + "a.txt"), "new");
    const std::string stored = board.Root().Read(folder + "film.mp4");
    EXPECT_GT(stored.size(), 1'000'000U);
    EXPECT_TRUE(stored == film.substr(0, stored.size()));
    EXPECT_EQ(board.Root().Read(folder + "film.mp4.tarvo.bak").size() * kChunkSize, stored.size());

    board.Run("rm /home/root/plexa_data/fill");
    result = Push("all");
    report = LastLine(result.out)["results"][0];
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(report["resumed"], 1);
    EXPECT_EQ(report["bytes"], film.size() - stored.size());
    EXPECT_TRUE(board.Root().Read(folder + "film.mp4") == film);
    EXPECT_FALSE(board.Root().Exists(folder + "film.mp4.tarvo.bak"));
}

TEST_F(Server, TransferIsResumedAfterTheCableWasPulled)
{
    const std::string film = Film(30'000'000, 6);
    Source("film.mp4", film);
    board::VirtualBoard &board = AddBoard(0);
    ASSERT_TRUE(board.WaitFor([] { return Connected() == 1; }));
    const std::string table = std::string(kFolder) + "film.mp4.tarvo.bak";
    const auto chunks = [&] { return board.Root().TryRead(table).value_or("").size(); };
    const LedboardRun push({"push", source_, "--to", "all", "--control", kControl, "--json", "--quiet"}, "",
                           "ledboard-server");
    ASSERT_TRUE(board.WaitFor([&] { return chunks() > 500; }, 20s));
    board.Network().Cable(false);
    // The board has restarted while the cable was out; the server does not know that.
    board.Daemon().Kill();
    const std::size_t had = chunks();
    board.Daemon().Start();
    board.Network().Cable(true);
    const LedboardResult result = push.Wait();
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    const nlohmann::json report = LastLine(result.out)["results"][0];
    EXPECT_EQ(report["resumed"], 1);
    EXPECT_LE(report["bytes"], film.size() + 2 * kChunkSize) << had << " chunks stay";
    EXPECT_TRUE(board.Root().Read(std::string(kFolder) + "film.mp4") == film);
}

TEST_F(Server, RefusesStrangersAndReportsOddReplies)
{
    Source("a", "content");
    const std::string name = "a" + Zeros(254);
    EXPECT_EQ(FakeBoard("stranger").Take(12), RemoteLoginAnswer(1));
    EXPECT_EQ(Push("K1-FAKE").status, 3);
    const std::string tooShort = kRemoteGreeting + Le32(0);
    const std::string tooLong = kRemoteGreeting + Le32(9217);
    const std::string unknownCommand = kRemoteGreeting + Le32(42) + Le32(3) + Zeros(34);
    for (const std::string &rubbish : {std::string("GET / HTTP/1.0\r\n\r\n"), tooShort, tooLong,
                                       unknownCommand, RemoteLogin("operator", "K1-\xFF")}) {
        const Peer peer = Peer::Connect("127.0.0.1", 7001);
        ASSERT_TRUE(peer.Send(rubbish));
        EXPECT_TRUE(peer.Ended());
    }

    std::ofstream(source_ + "no socket") << "precious";
    EXPECT_EQ(LedboardRun({"run", "--listen", "7002", "--control", source_ + "no socket"}, "",
                          "ledboard-server")
                  .Wait()
                  .status,
              1);
    EXPECT_EQ(fs::file_size(source_ + "no socket"), 8U);
    fs::remove(source_ + "no socket");

    EXPECT_EQ(Ask({"push", "caf\xE9", "--to", "all"}).status, 2);
    EXPECT_EQ(Ask({"push", source_, "--to", "\xFF"}).status, 2);
    EXPECT_EQ(Ask({"push", "", "--to", "all"}).status, 2);

    // Replies to the requests in their order, and how the push ends.
    const std::string lock = FakeReply(kRemoteLockReply, Le32(kLocked));
    const std::string lockRefused = FakeReply(kRemoteLockReply, Le32(kLockedByAnother));
    const std::string noFiles = FakeReply(kRemoteFilesReply, Zeros(1));
    const std::string noVideos = FakeReply(kRemoteVideosReply, Zeros(1));
    const std::string noDigest = FakeReply(kRemoteMd5Reply, name + Zeros(16));
    const std::string opened = FakeReply(kRemoteOpenReply, name + Le32(kSuccess));
    const std::string notOpened = FakeReply(kRemoteOpenReply, name + Le32(kFailure));
    const std::string stored = FakeReply(kRemoteDataReply, Zeros(4) + Le32(kSuccess));
    const std::string wrongCrc = FakeReply(kRemoteCloseReply, name + Le32(7));
    const std::string compared = lock + noFiles + noDigest;
    const std::string begun = compared + opened + stored;
    const struct {
        std::string replies;
        int status;
        const char *message;
    } rows[] = {
        {lockRefused, 5, "another user has locked the board"},
        {noFiles, 1, "reply 21 instead of 15"},
        {lock + FakeReply(kRemoteFilesReply, "half a name"), 1, "a listing with half a name"},
        {compared + notOpened + noVideos, 1, "the board cannot open a"},
        {begun + wrongCrc + opened + stored + wrongCrc + noVideos, 6,
         "the board's copy of a differs from what was sent"},
    };
    for (const auto &row : rows) {
        const Peer peer = FakeBoard();
        EXPECT_EQ(peer.Take(12), RemoteLoginAnswer(0));
        ASSERT_TRUE(peer.Send(row.replies));
        const LedboardResult result = Push("K1-FAKE");
        EXPECT_EQ(result.status, row.status) << result.out << result.err;
        EXPECT_EQ(LastLine(result.out)["results"][0].value("message", ""), row.message);
    }
}

TEST_F(Server, CtrlCEndsAPushToABoardThatDoesNotAnswer)
{
    Source("a", "content");
    const std::string id = Field("K1-FAKE", 14);
    const std::string lock = SessionPacket(kRemoteHeaderSize, kRemoteLock, id, "");
    for (const bool answersAtLast : {true, false}) {
        const Peer peer = FakeBoard();
        EXPECT_EQ(peer.Take(12).size(), 12U);
        const LedboardRun push({"push", source_, "--to", "K1-FAKE", "--control", kControl}, "",
                               "ledboard-server");
        EXPECT_EQ(peer.Take(lock.size()), lock);
        kill(push.Pid(), SIGINT);
        EXPECT_EQ(push.Wait().status, 128 + SIGINT);
        const std::size_t two = 2 * lock.size();
        EXPECT_EQ(peer.Take(two).size(), two) << "unlock, and a listing that marks the last reply";
        if (!answersAtLast) {
            EXPECT_TRUE(peer.Ended(15000));
            break;
        }
        ASSERT_TRUE(peer.Send(FakeReply(kRemoteLockReply, Le32(kLocked)) +
                              FakeReply(kRemoteVideosReply, Zeros(1)) +
                              FakeReply(kRemoteLockReply, Le32(kLockedByAnother))));
        LedboardResult result = Push("K1-FAKE");
        while (result.out.find("under way") != std::string::npos)
            result = Push("K1-FAKE");
        EXPECT_EQ(result.status, 5) << "the reply to the first push does not count: " << result.out;
    }
}
