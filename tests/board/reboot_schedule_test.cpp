// SPDX-License-Identifier: MIT
// The reboot schedule: read, written, kept, and the reboot itself.
#include "player_codes.h"
#include "settings_peer.h"

#include <unistd.h>

#include <cstring>
#include <ctime>

using namespace std::chrono_literals;

namespace
{

class RebootSchedule : public SettingsTest
{
protected:
    // Every day, some seconds from now on the board's clock moved on by `offset` minutes.
    static std::string InSeconds(int seconds, int offset = 0, std::uint32_t mode = 0)
    {
        const std::time_t due = std::time(nullptr) + 60 * offset + seconds;
        std::tm local{};
        localtime_r(&due, &local);
        return Schedule({.enabled = 1,
                         .minuteOffset = offset,
                         .hour = local.tm_hour,
                         .minute = local.tm_min,
                         .second = local.tm_sec,
                         .mode = mode,
                         .days = 1,
                         .unread = '?'});
    }
};

} // namespace

TEST_F(RebootSchedule, IsReadWrittenAndKept)
{
    Boot();
    const Peer port = Port();
    EXPECT_TRUE(port.Send(Command(kSettingReadSchedule)));
    EXPECT_EQ(port.Take(27), Answer(26, kSettingReadSchedule, Schedule({})));
    EXPECT_TRUE(board->Record().WaitForLog("DisposePacket::1745 get reboot ploy."));
    const std::string ploy = InSeconds(3600);
    EXPECT_TRUE(port.Send(Command(kSettingWriteSchedule, ploy) + Command(kSettingReadSchedule)));
    EXPECT_EQ(port.Take(33), Acknowledged(kSettingWriteSchedule) + Answer(26, kSettingReadSchedule, ploy));
    EXPECT_EQ(board->Root().Read("/home/root/plexa_data/reboot_ploy"), ploy);
    EXPECT_TRUE(board->Record().WaitForLog("start reboot timer"));
    EXPECT_EQ(Count(" 3600  seconds.") + Count(" 359"), 1U) << "less the time on the way";

    board->Forget();
    EXPECT_TRUE(port.Send(Command(kSettingWriteSchedule, Schedule({}))));
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingWriteSchedule));
    EXPECT_TRUE(board->Record().WaitForLog("reboot flag is false, stop reboot timer"));
    constexpr std::uint32_t kWeekdays = 1;
    EXPECT_TRUE(port.Send(Command(kSettingWriteSchedule, InSeconds(5, 0, kWeekdays))));
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingWriteSchedule));
    EXPECT_TRUE(board->Record().WaitForLog("anyone week been checked, stop reboot timer!"));
    board->Root().Write("/home/root/plexa_data/reboot_ploy", "twenty bytes, no more");
    board->Root().Write("/home/root/plexa_data/reboot_ploy", "twenty bytes, no mor");
    EXPECT_TRUE(port.Send(Command(kSettingSetClock, Le32(0) + Le32(300))));
    EXPECT_TRUE(board->Record().WaitForLog("reboot ploy file size is error."));
    // A folder cannot be opened for writing; the board acknowledges the schedule nevertheless.
    board->Run("rm /home/root/plexa_data/reboot_ploy; mkdir -p /home/root/plexa_data/reboot_ploy/x");
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingSetClock));
    EXPECT_TRUE(port.Send(Command(kSettingWriteSchedule, ploy)));
    EXPECT_EQ(port.Take(6), Acknowledged(kSettingWriteSchedule));
}

TEST_F(RebootSchedule, RebootsTheBoardInTime)
{
    for (const int offset : {0, -90}) {
        if (!board)
            Boot();
        const unsigned boots = board->Boots();
        const Peer port = Port();
        const std::time_t due = std::time(nullptr) + 3;
        EXPECT_TRUE(port.Send(Command(kSettingWriteSchedule, InSeconds(3, offset))));
        EXPECT_EQ(port.Take(6), Acknowledged(kSettingWriteSchedule));
        // The ticks are not the clock's: the board may be up again before the time, and then reboots once
        // more.
        EXPECT_TRUE(
            board->WaitFor([&] { return board->Boots() > boots && std::time(nullptr) > due + 1; }, 15s))
            << offset;
        EXPECT_TRUE(board->WaitFor([&] { return board->Daemon().Listens(); }));
        EXPECT_TRUE(board->Record().WaitForLog("RebootTimer  reboot now."));
        EXPECT_EQ(board->Record().StandInCalls().back(), std::vector<std::string>{"reboot"});
        // Read at start: the next reboot is due in a day.
        EXPECT_TRUE(board->Record().WaitForLog("start reboot timer", offset == 0 ? 2 : 4));
    }
}
