// SPDX-License-Identifier: MIT
// `ledboard modem` against a whole board.
#include "board_test.h"
#include "ledboard_run.h"

#include <nlohmann/json.hpp>

using nlohmann::json;
using namespace std::chrono_literals;

namespace
{

class ToolModem : public BoardTest
{
protected:
    ToolModem() { options.files["/usr/share/id/config"] = "C1-0000000001"; }

    static json RunJson(const char *what)
    {
        const LedboardResult result = Ledboard({"modem", what, "C1-0000000001", "--json"});
        EXPECT_EQ(result.status, 0) << result.out << result.err;
        return json::parse(result.out);
    }
    static std::string Run(const char *what) { return Ledboard({"modem", what, "C1-0000000001"}).out; }
};

} // namespace

TEST_F(ToolModem, ShowsStatusAndMessages)
{
    Boot();
    json status = RunJson("status");
    EXPECT_EQ(status["state"], "absent");
    for (const char *const unknown : {"signal", "technology", "operator", "model", "imei", "address"})
        EXPECT_EQ(status[unknown], nullptr) << unknown;
    EXPECT_EQ(Run("sms"), "C1-0000000001: no SMS\n");
    EXPECT_EQ(RunJson("sms")["sms"], json::array());

    for (int i = 1; i <= 12; ++i)
        board->Modem().Deliver("+49" + std::to_string(i), i == 12 ? "Tor\n\x1b[31m auf ü" : "text");
    board->Modem().Plug(true);
    ASSERT_TRUE(board->WaitFor([&] { return board->Modem().View().sms == 0; }, 40s));
    status = RunJson("status");
    EXPECT_EQ(status["board"], "C1-0000000001");
    EXPECT_EQ(status["state"], "registered");
    EXPECT_EQ(status["signal"], -79);
    EXPECT_EQ(status["registration"], "home");
    EXPECT_EQ(status["technology"], "UTRAN");
    EXPECT_EQ(status["attached"], true);
    EXPECT_EQ(status["operator"], "Example, Net");
    EXPECT_EQ(status["imei"], "490154203237518");
    EXPECT_NE(Run("status").find("network         home network\n"
                                 "operator        Example, Net\n"
                                 "technology      3G\n"
                                 "signal          -79 dBm\n"
                                 "packet service  attached\n"
                                 "ppp0            -\n"
                                 "device          Example Works, Model 3\n"
                                 "IMEI            490154203237518\n"),
              std::string::npos)
        << Run("status");

    const json sms = RunJson("sms")["sms"];
    ASSERT_EQ(sms.size(), 10U);
    EXPECT_EQ(sms[0]["sender"], "+493");
    EXPECT_EQ(sms[9]["text"], "Tor\n\x1b[31m auf ü");
    EXPECT_TRUE(sms[9]["time"].get<std::string>().ends_with("Z"));
    const std::string table = Run("sms");
    EXPECT_TRUE(table.starts_with("C1-0000000001:\nTIME")) << table;
    EXPECT_NE(table.find("+4912   Tor\\x0a\\x1b[31m auf ü\n"), std::string::npos) << table;
    EXPECT_EQ(Ledboard({"modem", "C1-0000000001"}).status, 2);
    EXPECT_EQ(Ledboard({"modem", "status"}).status, 2);
}
