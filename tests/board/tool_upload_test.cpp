// SPDX-License-Identifier: MIT
// `ledboard upload` against a whole board.
#include "board_test.h"
#include "ledboard_run.h"
#include "player_codes.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <fstream>

using nlohmann::json;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace
{

constexpr char kProgram[] = "/run/program"; // private to the PC side
constexpr char kFolder[] = "/home/root/plexa_data/factory/";

class ToolUpload : public BoardTest
{
protected:
    ToolUpload()
    {
        options.files["/usr/share/id/config"] = "C1-0000000001";
        options.files["/boot/disp.bin"] = "picture";
        fs::remove_all(kProgram);
    }

    static void Put(const std::string &name, const std::string &content)
    {
        const fs::path path = fs::path(kProgram) / name;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    static LedboardResult Run(std::vector<std::string> more = {})
    {
        std::vector<std::string> words = {"upload", "10.20.30.2", kProgram, "-t", "2"};
        words.insert(words.end(), more.begin(), more.end());
        return Ledboard(words);
    }
    static json RunJson(std::vector<std::string> more = {})
    {
        more.emplace_back("--json");
        more.emplace_back("--quiet");
        const LedboardResult result = Run(more);
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        return json::parse(result.out);
    }
    std::string OnBoard(const std::string &name)
    {
        return board->Root().TryRead(kFolder + name).value_or("(missing)");
    }
};

} // namespace

TEST_F(ToolUpload, SendsWhatTheBoardDoesNotHave)
{
    const std::string long1(30000, '1');
    Put("a.mp4", long1);
    Put("b c'$(x).mp4", "bbb");
    Put("plan/list.txt", "list");
    Put("plan/c.mp4", "never asked for");
    Put("empty", "");
    Boot();

    const json plan = RunJson({"--dry-run"});
    EXPECT_EQ(plan["ask"], json({"a.mp4", "b c'$(x).mp4"}));
    EXPECT_EQ(plan["send"]["files"].size(), 5U);
    EXPECT_TRUE(board->Root().Exists("/boot/disp.bin"));
    EXPECT_TRUE(board->Player().Messages().empty());

    const json first = RunJson();
    EXPECT_EQ(first["sent"]["files"].size(), 5U);
    EXPECT_EQ(first["sent"]["bytes"], 30022);
    EXPECT_EQ(first["sparedByName"], json({{"files", json::array()}, {"bytes", 0}}));
    EXPECT_EQ(OnBoard("a.mp4"), long1);
    EXPECT_EQ(OnBoard("b c'$(x).mp4"), "bbb");
    EXPECT_EQ(OnBoard("plan/list.txt"), "list");
    EXPECT_EQ(OnBoard("empty"), "");
    EXPECT_TRUE(board->Player().WaitForMessage(kPlayerRecvEnd));

    Put("a.mp4", "same name, other content");
    fs::remove(fs::path(kProgram) / "b c'$(x).mp4");
    const LedboardResult second = Run();
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(second.out.rfind("C1-0000000001: sent 3 files, 19 B, in ", 0), 0U) << second.out;
    EXPECT_NE(second.out.find("; spared by name 1 video, 24 B\n"), std::string::npos) << second.out;
    EXPECT_NE(second.err.find("C1-0000000001: upload 100%"), std::string::npos) << second.err;
    EXPECT_EQ(OnBoard("a.mp4"), long1);
    EXPECT_EQ(OnBoard("b c'$(x).mp4"), "(missing)");

    EXPECT_EQ(RunJson({"--all"})["sent"]["files"].size(), 4U);
    EXPECT_EQ(OnBoard("a.mp4"), "same name, other content");
}

TEST_F(ToolUpload, SendsWhatANewUsbDiskDoesNotHave)
{
    Put("a.mp4", "film");
    Boot();
    RunJson();
    EXPECT_EQ(RunJson()["sparedByName"]["files"], json({"a.mp4"}));
    board->UsbDisk().Plug(true);
    EXPECT_EQ(RunJson()["sent"]["files"], json({"a.mp4"}));
    EXPECT_EQ(board->Run("ls -A /home/root/usb_dev/tarvo").output, "a.mp4\n");
    EXPECT_EQ(board->Root().Read("/home/root/usb_dev/tarvo/a.mp4"), "film");
    EXPECT_EQ(RunJson()["sparedByName"]["files"], json({"a.mp4"}));
}

TEST_F(ToolUpload, RefusesBeforeAnythingIsSent)
{
    Boot();
    EXPECT_EQ(Run().status, 2); // no such folder
    const std::string folder = std::string(99, 'd') + "/";
    for (const std::string &name : {folder + std::string(101, 'n'), "a\nb"s, "x.mp4/file"s, "..\\x"s}) {
        fs::remove_all(kProgram);
        Put("good", "good");
        Put(name, "bad");
        EXPECT_EQ(Run().status, 2) << name;
    }
    EXPECT_TRUE(board->Player().Messages().empty());
    fs::remove_all(kProgram);
    Put(folder + std::string(100, 'n'), "fits");
    EXPECT_EQ(Run().status, 0);

    const Peer other = Peer::Connect(board->Network().BoardAddress(), 8870);
    ASSERT_TRUE(board->Record().WaitForLog("accept one client connecting.", 3));
    const LedboardResult refused = Run();
    EXPECT_EQ(refused.status, 5);
    EXPECT_NE(refused.err.find("as many sessions open as it allows; nothing on the board has changed"),
              std::string::npos)
        << refused.err;
}

TEST_F(ToolUpload, ReportsWhatABrokenUploadLeaves)
{
    options.dataMebibytes = 100;
    Boot();
    const struct {
        const char *name;
        std::function<void(pid_t)> breakIt;
        int status;
        const char *message;
    } rows[] = {
        {"Ctrl-C", [](pid_t tool) { kill(tool, SIGINT); }, 130, "interrupted, while 'big.mp4' was sent; "},
        {"cable", [&](pid_t) { board->Network().Cable(false); }, 4,
         "the board takes no more data, while 'big.mp4' was sent; "},
        {"daemon", [&](pid_t) { board->Daemon().Kill(); }, 1, "(its disk may be full or gone); "},
        {"disk", [&](pid_t) { board->Daemon().Signal(SIGCONT); }, 1, "(its disk may be full or gone); "},
    };
    Put("big.mp4", "");
    fs::resize_file(fs::path(kProgram) / "big.mp4", 200U << 20U); // more than the board's disk
    for (const auto &row : rows) {
        board->Forget();
        const LedboardRun run({"upload", "10.20.30.2", kProgram, "-t", "2", "--all"});
        ASSERT_TRUE(board->Record().WaitForLog("work_thread.cpp, type: 21", 2)) << row.name;
        board->Daemon().Signal(SIGSTOP); // the tool cannot finish
        row.breakIt(run.Pid());
        const LedboardResult result = run.Wait();
        EXPECT_EQ(result.status, row.status) << row.name << result.err;
        EXPECT_NE(result.err.find(row.message + "the board has no complete program now"s), std::string::npos)
            << row.name << result.err;
        board->Daemon().Signal(SIGCONT);
        if (board->Daemon().Running())
            EXPECT_TRUE(board->Record().WaitForLog("SS_CMD_RECV_END")) << row.name;
        else
            board->Daemon().Restart();
        board->Network().Cable(true);
        ASSERT_TRUE(board->WaitFor([&] {
            return Ledboard({"info", "10.20.30.2", "-t", "0.3"}).status == 0;
        }));
    }
    fs::resize_file(fs::path(kProgram) / "big.mp4", 10U << 20U);
    EXPECT_EQ(Run({"--all"}).status, 0);
    EXPECT_EQ(OnBoard("big.mp4"), std::string(10U << 20U, '\0'));
}
