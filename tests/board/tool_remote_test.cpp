// SPDX-License-Identifier: MIT
// `ledboard firmware` and `ledboard server` against a whole board.
#include "board_test.h"
#include "ledboard_run.h"
#include "peer.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

using nlohmann::json;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace
{

constexpr char kArchive[] = "/run/firmware.gz"; // private to the PC side
constexpr char kMake[] = "/run/firmware";

class ToolRemote : public BoardTest
{
protected:
    ToolRemote()
    {
        options.files["/usr/share/id/config"] = "C1-0000000001";
        options.files["/home/root/plexa/version"] = "1.2.3.4";
    }

    static void MakeArchive(const std::string &files, const std::string &script,
                            const std::string &how = "-czf")
    {
        fs::remove_all(kMake);
        fs::create_directories(kMake);
        std::ofstream(std::string(kMake) + "/update.sh") << script;
        std::ofstream(std::string(kMake) + "/other") << std::string(100'000, 'o');
        const std::string command =
            "cd " + std::string(kMake) + " && tar " + how + " " + std::string(kArchive) + " " + files;
        ASSERT_EQ(std::system(command.c_str()), 0);
    }

    static json RunJson(std::vector<std::string> words, int status = 0)
    {
        words.insert(words.end(), {"C1-0000000001", "--json", "--quiet", "--yes"});
        const LedboardResult result = Ledboard(words);
        EXPECT_EQ(result.status, status) << result.out << result.err;
        return json::parse(result.out);
    }
};

} // namespace

TEST_F(ToolRemote, InstallsFirmwareAndWaitsForItsResult)
{
    Boot();
    EXPECT_EQ(RunJson({"firmware", "version"})["playerVersion"], "1.2.3.4");
    MakeArchive("other update.sh", "echo 4.3.2.1 > /home/root/plexa/version\nreboot\n");
    EXPECT_EQ(RunJson({"firmware", "install", kArchive, "--dry-run"})["dryRun"], true);
    EXPECT_FALSE(board->Root().Exists("/tmp/QV_Firmware"));
    const json installed = RunJson({"firmware", "install", kArchive});
    EXPECT_EQ(installed["before"]["playerVersion"], "1.2.3.4");
    EXPECT_EQ(installed["playerVersion"], "4.3.2.1");
    EXPECT_EQ(installed["succeeded"], true);
    EXPECT_EQ(board->Boots(), 2U);

    MakeArchive("update.sh",
                "mkdir -p /usr/share/info\necho failed > /usr/share/info/server_upgrade_state\nreboot\n");
    const json failed = RunJson({"firmware", "install", kArchive}, 1);
    EXPECT_EQ(failed["error"]["message"], "the board is back and reports that the installation failed");
    EXPECT_EQ(RunJson({"firmware", "result"})["succeeded"], true) << "the board reports a failure once";

    // A failure that only the board can find: it cannot unpack.
    MakeArchive("update.sh", "true\n");
    board->Run("mv /bin/tar /bin/no-tar; printf '#!/bin/sh\\nexit 1\\n' > /bin/tar; chmod 755 /bin/tar");
    const std::string message = RunJson({"firmware", "install", kArchive}, 1)["error"]["message"];
    EXPECT_EQ(message, "the board cannot unpack the archive; its firmware is as it was");
    EXPECT_EQ(board->Boots(), 3U);
}

TEST_F(ToolRemote, RefusesWhatIsNoFirmware)
{
    const struct {
        const char *files;
        const char *how;
        const char *script;
        const char *message;
    } rows[] = {
        {"other", "-czf", "x", "has no file \"update.sh\" at its top"},
        {"update.sh", "-cf", "x", "is not a gzip-compressed archive"},
        {"update.sh", "-czf", "", "has no file \"update.sh\" at its top"},
        {"--transform s,^,sub/, update.sh", "-czf", "x", "has no file \"update.sh\" at its top"},
    };
    for (const auto &row : rows) {
        MakeArchive(row.files, row.script, row.how);
        const std::string message = RunJson({"firmware", "install", kArchive}, 1)["error"]["message"];
        EXPECT_EQ(message, "'" + std::string(kArchive) + "' " + row.message);
    }
    MakeArchive("other ./update.sh", "x");
    fs::resize_file(kArchive, fs::file_size(kArchive) - 9);
    const std::string message = RunJson({"firmware", "install", kArchive}, 1)["error"]["message"];
    EXPECT_NE(message.find("is damaged or cut off"), std::string::npos);
    EXPECT_EQ(RunJson({"firmware", "install", "/run/none"}, 1)["error"]["kind"], "failed");
}

TEST_F(ToolRemote, ShowsSetsAndForgetsTheServer)
{
    Boot();
    EXPECT_EQ(RunJson({"server", "show"})["server"], nullptr);
    RunJson({"server", "set", "10.20.30.1"}, 2);
    RunJson({"server", "set", "10.20.30.1:0", "--user", "u"}, 2);
    RunJson({"server", "set", "10.20.30.1:7001", "--user", std::string(21, 'u')}, 2);
    EXPECT_EQ(RunJson({"server", "set", "10.20.30.1:7001", "--user", "u", "--dry-run"})["dryRun"], true);
    EXPECT_FALSE(board->Root().Exists("/home/root/plexa_data/remote_server"));
    const LedboardRun server({"run", "--listen", "10.20.30.1:40000", "--control", "/run/tool-server.sock"},
                             "", "ledboard-server");
    const json set = RunJson({"server", "set", "10.20.30.1:40000", "--user", std::string(20, 'u')});
    EXPECT_EQ(set["server"], json({{"host", "10.20.30.1"}, {"port", 40000}, {"user", std::string(20, 'u')}}));
    EXPECT_EQ(set["connected"], true);
    // After a restart the board knows the port as a negative number.
    board->Daemon().Restart();
    EXPECT_TRUE(board->Record().WaitForLog("login server success!"));
    EXPECT_EQ(RunJson({"server", "show"})["server"]["port"], 40000);
    EXPECT_EQ(Ledboard({"server", "forget", "C1-0000000001"}).status, 2) << "it asks first";
    const json forgotten = RunJson({"server", "forget"});
    EXPECT_EQ(forgotten["server"], nullptr);
    EXPECT_EQ(forgotten["connected"], false);
    EXPECT_FALSE(board->Root().Exists("/home/root/plexa_data/remote_server"));
    EXPECT_EQ(RunJson({"server", "set", "some.host:1", "--user", "", "--timeout", "0.3"})["connected"],
              false);
    kill(server.Pid(), SIGTERM);
    EXPECT_EQ(server.Wait().status, 0);
}
