// SPDX-License-Identifier: MIT
// `ledboard network` against a whole board, and its exchange with one that loses datagrams.
#include "board_test.h"
#include "common/unique_fd.h"
#include "discovery_packets.h"
#include "ledboard_run.h"

#include <nlohmann/json.hpp>

#include <atomic>
#include <thread>

using nlohmann::json;
using namespace std::chrono_literals;

namespace
{

class ToolNetwork : public BoardTest
{
protected:
    ToolNetwork() { options.files["/usr/share/id/config"] = "C1-0000000001"; }

    long Count(const std::string &text)
    {
        long count = 0;
        for (const std::string &command : board->Record().Commands())
            count += command.find(text) == std::string::npos ? 0 : 1;
        return count;
    }
};

TEST_F(ToolNetwork, MovesABoardToDhcpAndBack)
{
    Boot();
    board->Network().DhcpServer(true);
    board->Forget();
    const LedboardResult dry = Ledboard({"network", "dhcp", "--dry-run", "C1-0000000001"});
    EXPECT_EQ(dry.out, "C1-0000000001: would become dynamic\n");
    EXPECT_EQ(board->Record().Commands().size(), 0U);

    const LedboardResult dhcp = Ledboard({"network", "dhcp", "--json", board->Network().BoardAddress()});
    EXPECT_EQ(dhcp.status, 0) << dhcp.out << dhcp.err;
    const json moved = json::parse(dhcp.out);
    EXPECT_EQ(moved["changed"], true);
    EXPECT_EQ(moved["before"]["address"], board->Network().BoardAddress());
    EXPECT_EQ(moved["after"]["address"], board->Network().LeaseAddress());
    EXPECT_EQ(moved["after"]["mode"], "dynamic");
    EXPECT_EQ(Count("udhcpc -R"), 1) << "no third request";

    // To an address outside the PC's network, and with a custom port.
    const LedboardResult fixed = Ledboard(
        {"network", "static", "C1-0000000001", "10.99.0.7/16", "--gateway", "10.99.0.1", "--port", "12000"});
    EXPECT_EQ(fixed.status, 0) << fixed.err;
    EXPECT_EQ(fixed.out,
              "C1-0000000001: fixed 10.99.0.7, netmask 255.255.0.0, gateway 10.99.0.1, port 12000; "
              "found at 10.99.0.7\n");
    EXPECT_EQ(board->Network().Eth0Address(), "10.99.0.7");
    EXPECT_EQ(Count("ifconfig eth0 10.99.0.7 netmask 255.255.0.0"), 1);
    const LedboardResult show = Ledboard({"network", "show", "C1-0000000001"});
    EXPECT_EQ(show.out, "board     C1-0000000001\nMAC       " + board->Network().BoardMac() +
                            "\nmode      fixed, port 12000\naddress   10.99.0.7\nnetmask   255.255.0.0\n"
                            "gateway   10.99.0.1\nheard on  " +
                            board->Network().PcInterface() + "\n");
    const LedboardResult again =
        Ledboard({"network", "static", "C1-0000000001", "10.99.0.7/16", "--gateway", "10.99.0.1"});
    EXPECT_EQ(again.out, "C1-0000000001: is already fixed 10.99.0.7, netmask 255.255.0.0, gateway 10.99.0.1, "
                         "port 12000\n");
    EXPECT_EQ(Count("ifconfig eth0"), 1);

    // Back home, the port given up.
    const LedboardResult back =
        Ledboard({"network", "static", "10.99.0.7", board->Network().BoardAddress() + "/24", "--gateway",
                  board->Network().PcAddress(), "--port", "0", "--json"});
    EXPECT_EQ(back.status, 0) << back.out;
    EXPECT_EQ(json::parse(back.out)["after"]["customPort"], nullptr);
    EXPECT_EQ(board->Network().Eth0Address(), board->Network().BoardAddress());

    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"10.1.1.1", "--gateway", "10.1.1.2"},
                                               {"10.1.1.1/31", "--gateway", "10.1.1.2"},
                                               {"10.1.1.0/24", "--gateway", "10.1.1.2"},
                                               {"10.1.1.1/24", "--gateway", "10.1.2.2"},
                                               {"10.1.1.1/24", "--gateway", "10.1.1.1"},
                                               {"224.1.1.1/24", "--gateway", "224.1.1.2"},
                                               {"10.1.1.1/24"},
                                               {"10.1.1.1/24", "--gateway", "10.1.1.2", "--port", "9999"}}) {
        std::vector<std::string> all = {"network", "static", "C1-0000000001"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(Ledboard(all).status, 2) << words[0];
    }
}

// A board on this PC's loopback interface that loses datagrams, as its faults say.
class FakeBoard
{
public:
    struct Faults {
        int lostRequests = 0;   // of the first ones
        bool losesEcho = false; // every one
        bool goesSilent = false;
        bool obeys = true;
        bool knowsRequest = false; // another tool has sent it once before
    };

    explicit FakeBoard(const Faults &faults) : faults_(faults), fd_(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_port = htons(8878);
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<const sockaddr *>(&any), sizeof any), 0);
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeBoard()
    {
        stop_ = true;
        thread_.join();
    }
    int Requests() const { return requests_; }
    int Applied() const { return applied_; }

private:
    void Serve()
    {
        while (!stop_) {
            pollfd waiting{.fd = fd_.Get(), .events = POLLIN, .revents = 0};
            if (poll(&waiting, 1, 20) != 1)
                continue;
            char bytes[1024];
            sockaddr_in from{};
            socklen_t size = sizeof from;
            const ssize_t got =
                recvfrom(fd_.Get(), bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &size);
            const std::string reply = Answer(std::string(bytes, static_cast<std::size_t>(got)));
            sendto(fd_.Get(), reply.data(), reply.empty() ? 0 : reply.size(), 0,
                   reinterpret_cast<const sockaddr *>(&from), size);
        }
    }

    std::string Answer(const std::string &request)
    {
        const std::string id = "C1-0000000009" + Zeros(1);
        if (faults_.goesSilent && requests_ > 0)
            return "";
        const std::string header = request.substr(0, kHeaderSize);
        if (request.size() == kSearchSize) {
            constexpr char kCommand = 15;
            const std::string addressAndStates = Zeros(12);
            const std::string mac = "02:00:00:00:00:09";
            return header + kCommand + addressAndStates + id + mac + Zeros(350);
        }
        if (request.size() == kStatusSize) {
            const std::string command = request.substr(kHeaderSize, 4);
            const std::string dynamic = Le32(dynamic_ ? 1 : 0);
            const std::string customPort = Le32(0);
            return header + command + dynamic + customPort + id;
        }
        if (request.size() != kAddressChangeSize || ++requests_ <= faults_.lostRequests)
            return "";
        if (stored_ == request.substr(kHeaderSize) || (faults_.knowsRequest && requests_ == 1)) {
            stored_.clear();
            return faults_.losesEcho ? "" : request;
        }
        stored_ = request.substr(kHeaderSize);
        ++applied_;
        dynamic_ = faults_.obeys;
        return "";
    }

    Faults faults_;
    ledboard::UniqueFd fd_;
    std::string stored_;
    bool dynamic_ = false;
    std::atomic<int> requests_{0};
    std::atomic<int> applied_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

TEST(ToolNetworkExchange, SendsPairsWhateverIsLost)
{
    const struct {
        const char *name;
        FakeBoard::Faults faults;
        int status;
        int requests;
        int applied;
        const char *output;
    } rows[] = {
        {"all goes well", {}, 0, 2, 1, "found at 127.0.0.1"},
        {"first lost", {.lostRequests = 1}, 0, 3, 1, "found at 127.0.0.1"},
        {"echo lost", {.losesEcho = true}, 4, 2, 1, "step 2 of 2"},
        {"goes silent", {.goesSilent = true}, 4, 1, 1, "step 1 of 2: the board has not answered"},
        {"loses all requests", {.lostRequests = 9}, 5, 3, 0, "step 1 of 2: the board keeps its addressing"},
        {"request known from another tool", {.knowsRequest = true}, 0, 3, 1, "found at 127.0.0.1"},
    };
    for (const auto &row : rows) {
        FakeBoard fake(row.faults);
        const LedboardResult result = Ledboard({"network", "dhcp", "127.0.0.1", "-i", "lo", "-t", "1"});
        EXPECT_EQ(result.status, row.status) << row.name << result.err;
        EXPECT_NE((result.out + result.err).find(row.output), std::string::npos) << row.name << result.err;
        EXPECT_EQ(fake.Requests(), row.requests) << row.name;
        EXPECT_EQ(fake.Applied(), row.applied) << row.name;
    }
}

} // namespace
