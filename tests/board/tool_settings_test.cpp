// SPDX-License-Identifier: MIT
// `ledboard settings` and the other verbs of the setting service against a whole board, through port 8879 and
// through a session: what they print, and what reaches files, FPGA, player and clock.
#include "ledboard_run.h"
#include "player_codes.h"
#include "settings_peer.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <fstream>

using nlohmann::json;
using namespace std::chrono_literals;

namespace
{

constexpr char kLocal[] = "/run/settings-of-a-test"; // private to the PC side

class ToolSettings : public SettingsTest
{
protected:
    ToolSettings() { options.files["/usr/share/id/config"] = "C1-0000000001"; }

    // Runs `test` twice: through port 8879, and through a session.
    template <typename Test> void BothWays(Test test)
    {
        for (const char *const way : {"", "--via-session"}) {
            SCOPED_TRACE(way);
            way_ = way;
            BootAndForget();
            held = Panel();
            test();
            board.reset();
        }
    }

    LedboardResult Run(std::vector<std::string> words)
    {
        words.push_back(board->Network().BoardAddress());
        if (!way_.empty())
            words.push_back(way_);
        board->Forget();
        return Ledboard(words);
    }
    // What the verb prints after the board's name. The FPGA gets these frames, and at the end of a session
    // the settings that the board holds then.
    std::string Done(const std::vector<std::string> &words, Pairs frames = {})
    {
        const LedboardResult result = Run(words);
        EXPECT_EQ(result.status, 0) << words[0] << ": " << result.out << result.err;
        if (!way_.empty()) {
            const Pairs last = Transfer(held);
            frames.insert(frames.end(), last.begin(), last.end());
        }
        ExpectFrames(frames);
        constexpr char kName[] = "C1-0000000001:";
        return result.out.starts_with(kName) ? result.out.substr(sizeof kName - 1) : result.out;
    }
    json DoneJson(std::vector<std::string> words, const Pairs &frames = {})
    {
        words.emplace_back("--json");
        return json::parse(Done(words, frames));
    }
    void ExpectFailure(const std::vector<std::string> &words, int status, const std::string &message)
    {
        const LedboardResult result = Run(words);
        EXPECT_EQ(result.status, status) << words[0] << words.back() << result.out << result.err;
        EXPECT_NE(result.err.find(message), std::string::npos) << words[0] << ": " << result.err;
        EXPECT_EQ(result.out, "");
        constexpr int kUsage = 2; // no session was opened
        EXPECT_TRUE(way_.empty() || status == kUsage || board->Fpga().WaitForFrame(kFrameBlock, 1));
    }
    static std::string Local(const std::string &content)
    {
        std::ofstream(kLocal, std::ios::binary) << content;
        return kLocal;
    }
    static std::string ReadLocal()
    {
        std::ifstream file(kLocal, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    static std::string Noise(std::size_t size)
    {
        std::string bytes(size, '\0');
        for (std::size_t index = 0; index < size; ++index)
            bytes[index] = static_cast<char>(index * 7 ^ index >> 8);
        return bytes;
    }

    Pairs held; // what the board's settings file holds

private:
    std::string way_;
};

} // namespace

TEST_F(ToolSettings, ShowsSavesAndLoads)
{
    BothWays([&] {
        const std::string table = Done({"settings", "show"});
        EXPECT_TRUE(table.starts_with("\nID   NAME           VALUE\n18   gray-bits      9 (10 bit planes)\n"
                                      "22   model-type     1 (model type 0)\n4    scan           16\n"
                                      "3    screen-size    128x64\n"))
            << table;
        EXPECT_NE(table.find("\n9    luminance      20 of 20\n"), std::string::npos);
        EXPECT_TRUE(table.ends_with("\n255                 5\nbrightness 100 %\n"));
        const json shown = DoneJson({"settings", "show"});
        EXPECT_EQ(shown["board"], "C1-0000000001");
        EXPECT_EQ(shown["records"].size(), 15U);
        EXPECT_EQ(shown["records"][3], json({{"id", 3},
                                             {"name", "screen-size"},
                                             {"value", 4194432},
                                             {"width", 128},
                                             {"height", 64}}));
        Local("an older file");
        EXPECT_EQ(Done({"settings", "save", kLocal}), " 128 bytes saved as " + std::string(kLocal) + "\n");
        EXPECT_EQ(ReadLocal(), SettingFile(Panel()));

        Pairs other = Panel();
        SetValue(&other, kIdScreenSize, ScreenSize(192, 96));
        for (std::uint32_t id = 80; id < 160; ++id) // several packets long
            other.emplace_back(id, id * 1'000'001);
        Local(SettingFile(other));
        const LedboardResult plan = Run({"settings", "load", kLocal, "--dry-run"});
        EXPECT_EQ(plan.out, "C1-0000000001: would load 95 parameters, screen 192x96\n");
        EXPECT_EQ(board->Root().Read(kWorking), SettingFile(Panel()));
        held = other;
        EXPECT_EQ(Done({"settings", "load", kLocal}, Transfer(other)),
                  " 95 parameters stored and sent to the FPGA, screen 192x96\n");
        EXPECT_EQ(board->Root().Read(kWorking), SettingFile(other));
        EXPECT_FALSE(board->Root().Exists(kStaged));

        held = {{kIdScreenSize, ScreenSize(64, 32)}, {5, 1}};
        Local(SettingFile(held));
        EXPECT_EQ(DoneJson({"settings", "load", kLocal, "--keep-tail"}, Transfer(held)),
                  json({{"board", "C1-0000000001"}, {"records", 2}, {"screen", "64x32"}}));
        EXPECT_EQ(board->Root().Read(kWorking), SettingFile(held) + SettingFile(other).substr(24));
        EXPECT_TRUE(
            Done({"settings", "show"}).ends_with("\nbrightness 100 %, 744 bytes after the records\n"));
    });
}

TEST_F(ToolSettings, SetsSingleParameters)
{
    BothWays([&] {
        const std::uint32_t large = ScreenSize(1024, 512);
        EXPECT_EQ(Run({"settings", "set", "77=1", "--dry-run"}).out,
                  "C1-0000000001: would set 1 parameter\n");
        EXPECT_TRUE(board->Fpga().Frames().empty());
        SetValue(&held, kIdScanRows, 6);
        SetValue(&held, kIdScreenSize, large);
        SetValue(&held, kIdLuminance, 17); // the highest luminance of a larger panel is lower
        SetValue(&held, kIdMaxLuminance, 17);
        EXPECT_EQ(Done({"settings", "set", "scan-rows=6", "screen-size=1024x512", "77=0x1"},
                       {{kIdScanRows, 6}, {kIdScreenSize, large}, {kIdLuminance, 17}, {77, 1}}),
                  " scan-rows = 6, screen-size = 1024x512, 77 = 1 (FPGA only: not in the board's file)\n");
        EXPECT_EQ(board->Root().Read(kWorking), SettingFile(held));
        SetValue(&held, kIdUnknown, 0xFFFFFFFF);
        EXPECT_EQ(DoneJson({"settings", "set", "255=4294967295"}, {{kIdUnknown, 0xFFFFFFFF}})["set"],
                  json::parse(R"([{"id": 255, "value": 4294967295, "stored": true}])"));
        ExpectFailure({"settings", "set", "luminance=900", "screen-size=2048x512"}, 6,
                      " as parameter 9, not 900");
    });
}

TEST_F(ToolSettings, BrightnessFramesAndTestModes)
{
    BothWays([&] {
        EXPECT_EQ(DoneJson({"brightness", "show"})["brightness"], 100);
        EXPECT_EQ(Run({"brightness", "50", "--dry-run"}).out,
                  "C1-0000000001: would set the brightness to 50 %\n");
        EXPECT_TRUE(board->Fpga().Frames().empty());
        EXPECT_EQ(Done({"brightness", "50"}, Colours(127)), " brightness 50 %\n");
        EXPECT_EQ(DoneJson({"brightness", "0x1"}, Colours(2))["brightness"], 1);
        EXPECT_EQ(DoneJson({"brightness", "show"})["brightness"], 1);
        EXPECT_EQ(Done({"fpga-frame", "14", "0xA5A5A5A5"}, {{kIdScanRows, 0xA5A5A5A5}}),
                  " frame 14 with value 2779096485 sent\n");
        EXPECT_EQ(DoneJson({"fpga-frame", "screen-size", "64x32"},
                           {{kIdScreenSize, ScreenSize(64, 32)}})["command"],
                  3);
        EXPECT_EQ(board->Root().Read(kWorking), SettingFile(Panel())) << "nothing is stored";

        const struct {
            const char *verb, *state, *output;
            std::uint32_t code, value; // of the message to the player: 0 for on
        } rows[] = {
            {"smart-setting", "on", " smart setting on\n", kPlayerSmartSetting, 0},
            {"smart-setting", "off", " smart setting off\n", kPlayerSmartSetting, 1},
            {"slant-line", "on", " slant lines on\n", kPlayerSlantLine, 0},
            {"slant-line", "off", " slant lines off\n", kPlayerSlantLine, 1},
        };
        for (const auto &row : rows) {
            EXPECT_EQ(Done({row.verb, row.state}), row.output);
            EXPECT_TRUE(board->Player().WaitForMessage(row.code));
            EXPECT_EQ(board->Player().Messages().back().bytes, PlayerMessage(row.code, row.value));
        }
    });
}

TEST_F(ToolSettings, ClockNameAndIdentity)
{
    BothWays([&] {
        const json clock = DoneJson({"clock", "get"});
        EXPECT_LT(std::abs(clock["aheadMilliseconds"].get<int>()), 2000);
        EXPECT_TRUE(Done({"clock", "get"}).ends_with("Z, +0.0 s against this PC\n"));
        Done({"clock", "sync"});
        std::vector<std::vector<std::string>> calls = board->Record().StandInCalls();
        ASSERT_EQ(calls.size(), 2U);
        EXPECT_EQ(calls[1], (std::vector<std::string>{"hwclock", "-w"}));

        // This board's clock cannot be set, and the verb finds that out.
        ExpectFailure({"clock", "set", "2026-05-17T08:30:00Z"}, 6, "the board has stayed at 20");
        calls = board->Record().StandInCalls();
        ASSERT_EQ(calls.size(), 2U);
        const std::time_t time = 1'779'006'600;
        char local[32];
        std::strftime(local, sizeof local, "%Y-%m-%d %H:%M:%S", std::localtime(&time));
        EXPECT_EQ(calls[0], (std::vector<std::string>{"date", "-s", local}));
        EXPECT_EQ(Run({"clock", "set", "2026-05-17T08:30:00Z", "--dry-run"}).out,
                  "C1-0000000001: would set the clock to 2026-05-17T08:30:00.000Z\n");
        EXPECT_TRUE(board->Record().StandInCalls().empty());

        const std::string longest = std::string(246, 'n') + "\xE2\x82\xAC";
        EXPECT_EQ(DoneJson({"name", longest})["name"], longest);
        EXPECT_EQ(board->Root().Read("/usr/share/id/name"), longest);
        EXPECT_EQ(Done({"name", "North gate"}), " name 'North gate' stored\n");
        EXPECT_EQ(Ledboard({"info", "North gate", "-t", "0.5"}).status, 0);
        EXPECT_EQ(Done({"identity", "K3-7654321098"}), " identifier 'K3-7654321098' stored\n");
        EXPECT_EQ(board->Root().Read("/usr/share/id/config"), "K3-7654321098");
        EXPECT_EQ(Ledboard({"info", "K3-7654321098", "-t", "0.5"}).status, 0);
    });
}

TEST_F(ToolSettings, LuminanceAndBootScreenFiles)
{
    BothWays([&] {
        ExpectFailure({"luminance", "get", kLocal}, 1, "the board has no luminance file");
        for (const std::size_t size : {1U, 249U, 250U, 99'999U}) {
            Local(Noise(size));
            EXPECT_EQ(DoneJson({"luminance", "put", kLocal})["bytes"], size);
            EXPECT_EQ(board->Root().Read("/home/root/plexa_data/luminance_file"), Noise(size));
            EXPECT_TRUE(board->Player().WaitForMessage(kPlayerLuminanceFile));
            Local("");
            EXPECT_EQ(Done({"luminance", "get", kLocal}),
                      " " + std::to_string(size) + " bytes saved as " + kLocal + "\n");
            EXPECT_EQ(ReadLocal(), Noise(size));
        }
        EXPECT_EQ(Done({"boot-screen", "set", kLocal}), " boot picture stored, 99999 bytes\n");
        EXPECT_EQ(board->Root().Read("/boot/disp.bin"), Noise(99'999));
        EXPECT_EQ(json::parse(
                      Ledboard({"info", board->Network().BoardAddress(), "--json"}).out)["bootScreen"],
                  true);
        ExpectFailure({"boot-screen", "clear"}, 2, "say --yes to agree");
        EXPECT_TRUE(board->Root().Exists("/boot/disp.bin"));
        EXPECT_EQ(Done({"boot-screen", "clear", "--yes"}), " boot picture removed\n");
        EXPECT_FALSE(board->Root().Exists("/boot/disp.bin"));
    });
}

TEST_F(ToolSettings, RebootSchedule)
{
    constexpr char kFile[] = "/home/root/plexa_data/reboot_ploy";
    BothWays([&] {
        EXPECT_EQ(Done({"reboot-schedule", "show"}), " no scheduled reboot\n");
        EXPECT_EQ(Done({"reboot-schedule", "every", "3", "days", "at", "04:30"}),
                  " reboots every 3 days at 04:30:00\n");
        EXPECT_EQ(board->Root().Read(kFile), Schedule({.enabled = 1, .hour = 4, .minute = 30, .days = 3}));
        EXPECT_TRUE(board->Record().WaitForLog("start reboot timer"));
        Done({"reboot-schedule", "on", "mon,thu", "at", "23:05:09", "--offset", "-90"});
        ScheduleFields fields = {.enabled = 1, .minuteOffset = -90, .hour = 23, .minute = 5, .second = 9};
        fields.mode = 1;
        fields.days = 1;
        fields.weekdayMask = 0x12;
        EXPECT_EQ(board->Root().Read(kFile), Schedule(fields));
        EXPECT_EQ(DoneJson({"reboot-schedule", "show"}), json({{"board", "C1-0000000001"},
                                                               {"enabled", true},
                                                               {"time", "23:05:09"},
                                                               {"minuteOffset", -90},
                                                               {"on", {"mon", "thu"}}}));
        EXPECT_EQ(Run({"reboot-schedule", "off", "--dry-run"}).out,
                  "C1-0000000001: would stop the scheduled reboot\n");
        EXPECT_EQ(board->Root().Read(kFile)[0], '\1');
        EXPECT_EQ(Done({"reboot-schedule", "off"}), " no scheduled reboot\n");
        fields.enabled = 0;
        EXPECT_EQ(board->Root().Read(kFile), Schedule(fields));
        EXPECT_TRUE(board->Record().WaitForLog("reboot flag is false, stop reboot timer"));
        board->Run(std::string("rm ") + kFile + "; mkdir -p " + kFile + "/x");
        ExpectFailure({"reboot-schedule", "every", "1", "day", "at", "04:30"}, 6,
                      "the board did not store the schedule");
    });
}

TEST_F(ToolSettings, InvalidArgumentsAreRefusedBeforeAnythingIsSent)
{
    BootAndForget();
    const std::string cut = SettingFile(Panel()).substr(0, 50);
    const struct {
        std::vector<std::string> words;
        int status;
        const char *message;
        std::string file;
    } rows[] = {
        {{"settings"}, 2, "\"settings\" takes one of the words show, save, load, set first", ""},
        {{"settings", "set", "77=1", "77=2"}, 2, "parameter 77 is given twice", ""},
        {{"settings", "set", "77"}, 2, "it takes ID=VALUE... and then BOARD...", ""},
        {{"settings", "set", "luminence=5"}, 2, "names no parameter", ""},
        {{"settings", "set", "9=bright"}, 2, "has no value", ""},
        {{"settings", "load", kLocal}, 1, "is damaged: its header does not fit its records", cut},
        {{"settings", "load", kLocal}, 1, "is not a settings file", "hello"},
        {{"settings", "load", "/run/none"}, 1, "cannot read '/run/none': No such file or directory", ""},
        {{"settings", "load", "/run"}, 1, "cannot read '/run': Is a directory", ""},
        {{"settings", "save", "/none/x"}, 1, "cannot write '/none/x': No such file or directory", ""},
        {{"settings", "save", kLocal, "C1-0000000001"}, 2, "of one board only", ""},
        {{"brightness", "0"}, 2, "'0' is not a brightness", ""},
        {{"brightness", "101"}, 2, "'101' is not a brightness", ""},
        {{"clock", "set", "2026-06-31T08:00"}, 2, "is not a time", ""},
        {{"name", ""}, 2, "a name has 1 to 249 bytes", ""},
        {{"name", std::string(250, 'n')}, 2, "a name has 1 to 249 bytes", ""},
        {{"identity", "C1-000000001"}, 2, "an identifier has 13 characters", ""},
        {{"identity", "C1-0000000002", "C1-0000000001"}, 2, "belongs to one board only", ""},
        {{"luminance", "put", kLocal}, 1, "is empty", ""},
        {{"reboot-schedule", "every", "63", "days", "at", "04:30"}, 2, "is not a number of days", ""},
        {{"reboot-schedule", "every", "3", "weeks", "at", "04:30"}, 2, "the word 'days' is missing", ""},
        {{"reboot-schedule", "on", "mon", "at", "25:00"}, 2, "is not a time of day", ""},
        {{"reboot-schedule", "on", "monday", "at", "04:30"}, 2, "is not a list of days", ""},
        {{"smart-setting", "maybe"}, 2, "maybe", ""},
        {{"fpga-frame", "256", "1"}, 2, "names no parameter", ""},
    };
    for (const auto &row : rows) {
        Local(row.file);
        ExpectFailure(row.words, row.status, row.message);
        EXPECT_TRUE(board->Fpga().Frames().empty()) << row.words[0];
        EXPECT_TRUE(board->Record().StandInCalls().empty()) << row.words[0];
    }
    EXPECT_EQ(Ledboard({"settings", "show", "10.20.30.99", "-t", "0.3"}).status, 3);
    const LedboardResult both =
        Ledboard({"clock", "get", board->Network().BoardAddress(), "10.20.30.99", "--json", "-t", "0.3"});
    EXPECT_EQ(both.status, 7);
    EXPECT_EQ(json::parse(both.out)["boards"][1]["error"]["kind"], "no-such-board");
}

TEST_F(ToolSettings, BoardsWithoutSettings)
{
    Boot();
    ExpectFailure({"settings", "show"}, 1, "the board has no settings file");
    ExpectFailure({"settings", "save", kLocal}, 1, "the board has no settings file");
    EXPECT_EQ(Run({"brightness", "show"}).out,
              "C1-0000000001: brightness unknown: the board has no settings file\n");
    EXPECT_EQ(Run({"brightness", "40"}).out, "C1-0000000001: brightness 40 %\n");
    EXPECT_EQ(Run({"settings", "set", "gap=4"}).out,
              "C1-0000000001: gap = 4 (FPGA only: not in the board's file)\n");
    board->Root().Write(kWorking, "hello");
    ExpectFailure({"settings", "show"}, 1, "what the board has stored is not a settings file");
    EXPECT_EQ(Run({"settings", "save", kLocal}).status, 0);
    EXPECT_EQ(ReadLocal(), "hello") << "a damaged file can be looked at";
}

TEST_F(ToolSettings, WaitsForABusyBoardUntilTheTimeout)
{
    BootAndForget();
    Peer holder = Port();
    Settle(holder);
    ExpectFailure({"clock", "get", "--timeout", "0.3"}, 5,
                  "Connection refused; the board serves one setting program at a time");
    EXPECT_EQ(Run({"clock", "get", "--via-session"}).status, 0) << "the other way in";
    const LedboardRun waiting({"clock", "get", board->Network().BoardAddress()});
    EXPECT_TRUE(board->Record().WaitForLog("get time start."));
    End(holder);
    EXPECT_EQ(waiting.Wait().status, 0);
    {
        std::vector<LedboardRun> crowd;
        crowd.reserve(5);
        for (int count = 0; count < 5; ++count)
            crowd.emplace_back(std::vector<std::string>{"settings", "show", board->Network().BoardAddress()});
        for (const LedboardRun &run : crowd)
            EXPECT_EQ(run.Wait().status, 0);
    }
    const Peer other = Session(); // the second one: the player has one, too
    ExpectFailure({"clock", "get", "--via-session"}, 5, "as many sessions open as it allows");
}

TEST_F(ToolSettings, FullDisksAreReported)
{
    options.dataMebibytes = 1;
    BootAndForget();
    board->Run("dd if=/dev/zero of=/home/root/plexa_data/fill bs=4096");
    Local(Noise(20'000));
    ExpectFailure({"luminance", "put", kLocal}, 1, "(its disk may be full)");
    Pairs other = Panel();
    other.insert(other.end(), 2000, {80, 1});
    Local(SettingFile(other));
    ExpectFailure({"settings", "load", kLocal}, 6, "the board's file differs from what was sent");
}
