// SPDX-License-Identifier: MIT
// `ledboard discover` and `ledboard info` against whole boards.
#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"
#include "ledboard_run.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <fstream>

using nlohmann::json;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace
{

// A change to a fixed address: 10.20.30.77/24, gateway 10.20.30.1, custom port 12000.
void MoveBoard(const std::string &address)
{
    const std::string newAddress = "\x0a\x14\x1e\x4d"s;
    const std::string mask = "\xff\xff\xff\x00"s;
    const std::string gateway = "\x0a\x14\x1e\x01"s;
    const std::string dhcpFlag = Le32(0);
    const std::string customPort = Le32(12000);
    const std::string request = ProtocolHeader(0x0100, kAddressChangeSize, 1) + newAddress + mask + gateway +
                                dhcpFlag + customPort + "C1-0000000001\0"s;
    ASSERT_EQ(request.size(), kAddressChangeSize);
    const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(8878);
    inet_pton(AF_INET, address.c_str(), &to.sin_addr);
    ASSERT_EQ(sendto(fd.Get(), request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&to),
                     sizeof to),
              static_cast<ssize_t>(kAddressChangeSize));
}

// Whether the process has a handler of its own for SIGINT.
bool CatchesInterrupt(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("SigCgt:"))
            return (std::stoull(line.substr(7), nullptr, 16) >> (SIGINT - 1) & 1U) != 0;
    return false;
}

class ToolDiscover : public BoardTest
{
protected:
    ToolDiscover()
    {
        options.files["/usr/share/id/config"] = "C1-0000000001\n";
        options.files["/usr/share/id/name"] = "Main gate";
        options.files["/home/root/plexa/version"] = "1.20.3.4\n";
        options.files["/boot/fpga.img"] = "\x00\x07\x08\x09....."s;
        options.files["/boot/disp.bin"] = "picture";
    }
};

} // namespace

TEST_F(ToolDiscover, ShowsAllOfABoardThatIsDynamic)
{
    options.addressing = board::Addressing::kDhcp;
    Boot();
    ASSERT_TRUE(
        board->WaitFor([&] { return board->Network().Eth0Address() == board->Network().LeaseAddress(); }));
    const LedboardResult table = Ledboard({"discover", "-t", "1"});
    EXPECT_EQ(table.status, 0);
    EXPECT_EQ(table.out, "ID             NAME       ADDRESS      MAC                MODE     PLAYER    FPGA  "
                         " SCREEN   USB ROOM\n"
                         "C1-0000000001  Main gate  10.20.30.50  " +
                             board->Network().BoardMac() + "  dynamic  1.20.3.4  7.8.9  128x128  -\n");
    EXPECT_EQ(table.err, "1 board\n");

    const LedboardResult list = Ledboard({"discover", "--json", "-t", "1"});
    EXPECT_EQ(list.err, "");
    json found = json::parse(list.out)["boards"].at(0);
    EXPECT_TRUE(found["answeredAt"].get<std::string>().ends_with("Z"));
    found.erase("answeredAt");
    const json expected = {{"id", "C1-0000000001"},
                           {"name", "Main gate"},
                           {"mac", board->Network().BoardMac()},
                           {"address", "10.20.30.50"},
                           {"netmask", "255.255.255.0"},
                           {"gateway", found["gateway"]}, // what the lease says
                           {"mode", "dynamic"},
                           {"customPort", nullptr},
                           {"playerVersion", "1.20.3.4"},
                           {"fpgaVersion", "7.8.9"},
                           {"screen", {{"width", 128}, {"height", 128}}},
                           {"usbRoomKiB", 0},
                           {"light", 0},
                           {"deviceType", 1},
                           {"modelType", 1},
                           {"bootScreen", true},
                           {"recordAddress", found["recordAddress"]},
                           {"recordAddressOrder", found["recordAddressOrder"]},
                           {"interface", "pc0"}};
    EXPECT_EQ(found, expected);

    for (const char *name : {"10.20.30.50", "C1-0000000001", "main gate"}) {
        const LedboardResult info = Ledboard({"info", name, "--json", "-t", "1"});
        EXPECT_EQ(info.status, 0) << name;
        EXPECT_EQ(json::parse(info.out)["mac"], board->Network().BoardMac()) << name;
    }
    const LedboardResult text = Ledboard({"info", board->Network().BoardMac(), "-q"});
    EXPECT_NE(text.out.find("\nmode            dynamic\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("\nboot screen     yes\n"), std::string::npos) << text.out;
    EXPECT_EQ(text.err, "");
}

TEST_F(ToolDiscover, KnowsABoardWhoseRecordHoldsTheAddressReversed)
{
    options.files["/home/root/plexa_data/server_config"] = "port=0\n";
    Boot();
    const json before = json::parse(Ledboard({"info", "10.20.30.2", "--json"}).out);
    EXPECT_EQ(before["mode"], "fixed");
    EXPECT_EQ(before["recordAddressOrder"], "network");

    MoveBoard("10.20.30.2");
    ASSERT_TRUE(board->WaitFor([&] { return board->Network().Eth0Address() == "10.20.30.77"; }));
    ASSERT_TRUE(board->Record().WaitForCommand("server_config_tmp"));
    for (const char *name : {"C1-0000000001", "10.20.30.77", "10.20.30.77:12000"}) {
        const json info = json::parse(Ledboard({"info", name, "--json", "-t", "1"}).out);
        EXPECT_EQ(info["address"], "10.20.30.77") << name;
        EXPECT_EQ(info["recordAddressOrder"], "reversed") << name;
        EXPECT_EQ(info["gateway"], "10.20.30.1") << name;
        EXPECT_EQ(info["mode"], "fixed") << name;
        EXPECT_EQ(info["customPort"], 12000) << name;
    }
    EXPECT_EQ(Ledboard({"info", "10.20.30.77:12001", "-t", "0.3"}).status, 3);
}

TEST_F(ToolDiscover, FindsBoardsOnEveryInterfaceAndTellsTwinsApart)
{
    options.number = 1;
    Boot();
    board::Options twin = options;
    twin.number = 0;
    twin.files["/usr/share/id/name"] = "\x1b[2J\xff gate"s;
    board::VirtualBoard other(twin);
    other.Boot();
    const LedboardResult both = Ledboard({"discover", "--json", "-t", "1"});
    json boards = json::parse(both.out)["boards"];
    ASSERT_EQ(boards.size(), 2U);
    EXPECT_EQ(boards[0]["mac"], other.Network().BoardMac()); // equal identifiers: by MAC
    EXPECT_EQ(boards[0]["name"], "\x1b[2J� gate");
    EXPECT_EQ(boards[0]["mode"], "fixed");
    EXPECT_EQ(boards[1]["interface"], "pc1");
    EXPECT_NE(Ledboard({"discover", "-t", "1"}).out.find("\\x1b[2J� gate "), std::string::npos);
    EXPECT_EQ(json::parse(Ledboard({"discover", "--json", "-t", "1", "-i", "pc1"}).out)["boards"].size(), 1U);

    const LedboardResult ambiguous = Ledboard({"info", "C1-0000000001", "-t", "1"});
    EXPECT_EQ(ambiguous.status, 2);
    EXPECT_NE(ambiguous.err.find(other.Network().BoardMac()), std::string::npos) << ambiguous.err;
    EXPECT_EQ(json::parse(Ledboard({"info", other.Network().BoardMac(), "--json"}).out)["address"],
              "10.20.30.2");

    const LedboardResult some = Ledboard(
        {"info", "10.20.31.2", "nobody", "10.20.30.2", board->Network().BoardMac(), "--json", "-t", "1"});
    EXPECT_EQ(some.status, 7);
    boards = json::parse(some.out)["boards"];
    ASSERT_EQ(boards.size(), 3U) << "a board named twice is one board";
    EXPECT_EQ(boards[0]["address"], "10.20.30.2");
    EXPECT_EQ(boards[1]["address"], "10.20.31.2");
    EXPECT_EQ(boards[2]["board"], "nobody");
    EXPECT_EQ(boards[2]["error"]["status"], 3);
}

TEST_F(ToolDiscover, FindsABoardFromAnInterfaceWithoutAnAddressOrRoute)
{
    Boot();
    ASSERT_EQ(std::system("ip address flush dev pc0"), 0);
    const json boards = json::parse(Ledboard({"discover", "--json", "-t", "1"}).out)["boards"];
    ASSERT_EQ(boards.size(), 1U);
    EXPECT_EQ(boards[0]["address"], "10.20.30.2");
    EXPECT_EQ(boards[0]["mode"], "fixed");
    EXPECT_EQ(json::parse(Ledboard({"info", "10.20.30.2", "--json"}).out)["mode"], "fixed");
}

TEST_F(ToolDiscover, SaysWhatABoardDoesNotKnow)
{
    options.files.clear();
    Boot();
    const json found = json::parse(Ledboard({"info", "10.20.30.2", "--json"}).out);
    EXPECT_EQ(found["id"], "");
    EXPECT_EQ(found["name"], "Controller");
    EXPECT_TRUE(found["playerVersion"].is_null());
    EXPECT_TRUE(found["fpgaVersion"].is_null());
    EXPECT_EQ(found["bootScreen"], false);
    EXPECT_EQ(found["mode"], "fixed");
}

TEST_F(ToolDiscover, EndsWithTheStatusThatFits)
{
    Boot();
    board->Daemon().Kill();
    struct Row {
        std::vector<std::string> words;
        int status;
        const char *message;
    };
    const Row rows[] = {
        {{}, 2, "a verb is missing"},
        {{"discouver"}, 2, "there is no verb 'discouver'"},
        {{"info"}, 2, "BOARD is required"},
        {{"info", ""}, 2, "an empty text names no board"},
        {{"discover", "--timeout", "nan"}, 2, "0.1 to 3600 seconds"},
        {{"discover", "--jobs", "0"}, 2, "1 to 256"},
        {{"discover", "--interface", "wlan7"}, 2, "no network interface 'wlan7'"},
        {{"info", "10.20.30.2", "-t", "0.3"}, 3, "no board answers at 10.20.30.2"},
        {{"--timeout", "0.3", "info", "north"}, 3, "identifier, name or MAC 'north'"},
    };
    for (const Row &row : rows) {
        const LedboardResult text = Ledboard(row.words);
        EXPECT_EQ(text.status, row.status) << row.message;
        EXPECT_EQ(text.out, "");
        EXPECT_NE(text.err.find(row.message), std::string::npos) << text.err;
        std::vector<std::string> words = row.words;
        words.push_back("--json");
        const LedboardResult document = Ledboard(words);
        EXPECT_EQ(document.status, row.status) << row.message;
        EXPECT_EQ(document.err, "");
        EXPECT_EQ(json::parse(document.out)["error"]["status"], row.status) << document.out;
    }
    EXPECT_EQ(Ledboard({"discover", "-t", "0.3"}).err, "no board answered\n");
    EXPECT_EQ(Ledboard({"discover", "-t", "0.3", "--json"}).out, "{\"boards\":[]}\n");
    EXPECT_EQ(Ledboard({"discover", "-t", "0.3", "--json"}, "/dev/full").status, 1);
    board->Network().Cable(false); // takes the PC's only interface down
    EXPECT_EQ(Ledboard({"discover", "-t", "1"}).status, 1);
}

TEST_F(ToolDiscover, CtrlCEndsTheSearch)
{
    Boot();
    const LedboardRun run({"discover", "--json", "--timeout", "60"});
    const auto limit = std::chrono::steady_clock::now() + 10s;
    while (!CatchesInterrupt(run.Pid()) && std::chrono::steady_clock::now() < limit)
        poll(nullptr, 0, 1);
    kill(run.Pid(), SIGINT);
    const LedboardResult result = run.Wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(json::parse(result.out)["error"]["kind"], "interrupted");
}
