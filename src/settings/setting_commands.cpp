// SPDX-License-Identifier: MIT
#include "settings/setting_commands.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "settings/reboot_ploy.h"
#include "settings/setting_answer.h"
#include "settings/setting_copies.h"
#include "settings/setting_packet.h"
#include "state/device_record.h"
#include "state/setting_file.h"

#include <QDateTime>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

namespace
{

constexpr char kUnit[] = "src/serial_thread";

// A packet that is being handled.
struct Request {
    const SettingLock &lock;
    SettingParts &parts;
    SettingClient client;
    const SettingPacket &packet;
    SettingAnswer &answer;
};

void Acknowledge(const Request &request)
{
    request.answer.Reply(MakeSettingCommand(request.packet.Code(), sizeof(wire::SettingCommand)));
}

// Fills all slots of a list but the last with the records of the working copy that have one of these ids, in
// the order of the file. Unused slots are full of kEmptySlotByte. False if the working copy cannot be opened
// (errno).
template <std::size_t Slots, std::size_t Ids>
bool FillList(const SettingLock &, std::array<wire::SettingRecord, Slots> *list,
              const std::array<std::uint32_t, Ids> &ids)
{
    std::memset(list->data(), wire::kEmptySlotByte, sizeof *list);
    const FilePointer file = OpenFile(paths::kSetting, "rb");
    if (!file)
        return false;
    std::fseek(file.get(), sizeof(wire::SettingFileHeader), SEEK_SET);
    std::size_t used = 0;
    while (used < Slots - 1) {
        const auto record = ReadSetting(file.get());
        if (!record)
            break;
        if (std::find(ids.begin(), ids.end(), static_cast<std::uint32_t>(record->id)) != ids.end())
            (*list)[used++] = *record;
    }
    return true;
}

// As the command "date -s" takes it; empty for a time that no calendar has.
std::string LocalTime(std::int64_t milliseconds)
{
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(milliseconds);
    return time.isValid() ? time.toString("yyyy-MM-dd hh:mm:ss").toStdString() : std::string();
}

// A failure is only logged: the commands that store a file have no reply that could report it.
void StoreWhole(const char *path, wire::Bytes bytes)
{
    const std::string content(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    if (!ReplaceFile(path, content))
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write %s: ", path);
}

int End(const Request &request)
{
    request.parts.staging.Close(request.lock);
    request.answer.shutdown = true;
    return 0;
}

int Start(const Request &request)
{
    return request.parts.staging.Begin(request.lock) ? 1 : 0;
}

int NotSave(const Request &request)
{
    request.parts.staging.Close(request.lock);
    return 1;
}

int SendToFpga(const Request &request)
{
    request.parts.staging.Reopen(request.lock);
    request.parts.parameters.SendAll(request.lock);
    return 1;
}

void WorkingCopyChanged(const Request &request)
{
    RewriteBootCopy(request.lock, true);
    RefreshScreenSize();
}

// The last steps of both ways to save.
void StageAgain(const Request &request)
{
    request.parts.staging.Reopen(request.lock);
    request.parts.parameters.LoadCaches(request.lock);
    RunShell("sync");
}

int Save(const Request &request)
{
    if (!request.parts.staging.Close(request.lock))
        return 0;
    request.parts.staging.MoveToWorkingCopy(request.lock);
    WorkingCopyChanged(request);
    StageAgain(request);
    return 1;
}

int CopyOver(const Request &request)
{
    if (!request.parts.staging.Close(request.lock))
        return 0;
    const SettingStaging::CopyResult copy = request.parts.staging.CopyToWorkingCopy(request.lock);
    if (copy.opened)
        WorkingCopyChanged(request);
    StageAgain(request);
    return copy.stored ? 1 : 0;
}

int LuminanceFile(const Request &request)
{
    return request.parts.luminanceFile.Receive(request.lock, request.client, request.packet.Argument(),
                                               &request.answer);
}

int BootScreen(const Request &request)
{
    return request.parts.bootScreenFile.Receive(request.lock, request.client, request.packet.Argument(),
                                                &request.answer);
}

int ReadLuminance(const Request &request)
{
    AnswerLuminanceFile(request.lock, &request.answer);
    return 1;
}

int RtsOpen(const Request &request)
{
    request.parts.rtsFlag = true;
    return 1;
}

int RtsClose(const Request &request)
{
    request.parts.rtsFlag = false;
    RefreshScreenSize();
    return 1;
}

int ReadRefresh(const Request &request)
{
    constexpr std::array<std::uint32_t, 5> kIds = {3, 4, 12, 14, 18};
    std::array<wire::SettingRecord, wire::kRefreshListSlots> list;
    if (!FillList(request.lock, &list, kIds))
        std::printf("open setting.ss fail: %s.\n", std::strerror(errno));
    request.answer.Reply(list);
    request.answer.after = [](std::size_t) { std::printf("read rr send finish.\n"); };
    return 1;
}

int ReadScreen(const Request &request)
{
    constexpr std::array<std::uint32_t, 9> kIds = {3, 9, 11, 12, 18, 26, 27, 254, 255};
    std::array<wire::SettingRecord, wire::kScreenListSlots> list;
    if (FillList(request.lock, &list, kIds)) {
        list.back() = {.id = wire::kIdBrightnessPercent,
                       .value = request.parts.parameters.BrightnessPercent(request.lock)};
    }
    request.answer.Reply(list);
    return 1;
}

int ReadFile(const Request &request)
{
    request.answer.file = OpenFile(paths::kSetting, "rb");
    if (request.answer.file) {
        const std::uint32_t percent = request.parts.parameters.BrightnessPercent(request.lock);
        request.answer.Reply(wire::SettingRecord{.id = wire::kIdBrightnessPercent, .value = percent});
        std::printf("luminance per: %d.\n", static_cast<int>(percent));
    }
    request.answer.blockSize = sizeof(wire::SettingRecord);
    request.answer.shortLog = "send setting.ss file fail.";
    request.answer.tail.assign(sizeof(wire::SettingRecord), '\0');
    request.answer.after = [](std::size_t fileBytes) {
        std::printf("sends size: %d\n", static_cast<int>(fileBytes + sizeof(wire::SettingRecord)));
    };
    return 1;
}

int Name(const Request &request)
{
    const char *const name = request.packet.ArgumentText();
    g_device.setDeviceName(name);
    StoreWhole(paths::kDeviceName, wire::BytesAt(name, std::strlen(name)));
    return 1;
}

int SetClock(const Request &request)
{
    const std::string time = LocalTime(request.packet.ArgumentAs<wire::I64>());
    request.answer.before = [time] {
        if (time.empty())
            return;
        const std::string command = "date -s \"" + time + "\"; hwclock -w;";
        RunShell(command);
        std::printf("system(%s).\n", command.c_str());
    };
    Acknowledge(request);
    request.answer.after = [](std::size_t) { ReloadRebootPloy(); };
    return 1;
}

int Brightness(const Request &request)
{
    request.parts.parameters.SetBrightness(request.lock, request.packet.ArgumentAs<wire::U8>());
    RefreshScreenSize();
    return 1;
}

int GetClock(const Request &request)
{
    const wire::SettingTime reply{.command =
                                      MakeSettingCommand(request.packet.Code(), sizeof(wire::SettingTime)),
                                  .milliseconds = QDateTime::currentMSecsSinceEpoch()};
    request.answer.Reply(reply);
    request.answer.after = [](std::size_t) {
        std::printf("send size: %d.\n", static_cast<int>(sizeof reply));
    };
    return 1;
}

int Debug(const Request &request)
{
    request.parts.debugFlag = true;
    Acknowledge(request);
    return 0;
}

int ClearBootScreen(const Request &request)
{
    RunShell("rm /boot/disp.bin");
    g_device.setBootScreenFlag(0);
    Acknowledge(request);
    return 1;
}

int Identity(const Request &request)
{
    const wire::Bytes identity = request.packet.Argument();
    if (identity.empty())
        return 1;
    StoreWhole(paths::kDeviceId, identity);
    g_device.setID(request.packet.ArgumentText());
    return 1;
}

int Refuse(const Request &)
{
    return 0;
}

int SlantLine(const Request &request)
{
    const std::uint32_t on = request.packet.ArgumentAs<wire::U32>();
    if (on <= 1)
        request.answer.before = [on] { PaintSlantLine(on == 1); };
    return 1;
}

int Probe(const Request &request)
{
    request.answer.before = ProbePlayer;
    return 1;
}

int TakePlayerCopy(const Request &request)
{
    TakePlayerSettings(request.lock);
    RefreshScreenSize();
    request.parts.parameters.SendAll(request.lock);
    return 1;
}

int SmartOff(const Request &request)
{
    request.answer.before = [] { SmartSettingFlag(false); };
    return 1;
}

int SmartOn(const Request &request)
{
    request.answer.before = [] { SmartSettingFlag(true); };
    return 1;
}

int ReadPloy(const Request &request)
{
    constexpr int kLogLine = 1745;
    std::printf("%s::%d get reboot ploy.\n", "DisposePacket", kLogLine);
    wire::RebootPloyReply reply{.command =
                                    MakeSettingCommand(request.packet.Code(), sizeof(wire::RebootPloyReply)),
                                .ploy = {}};
    const auto content = ReadFileStart(paths::kRebootPloy, sizeof reply.ploy);
    if (content)
        std::memcpy(&reply.ploy, content->data(), content->size());
    request.answer.Reply(reply);
    return 1;
}

int WritePloy(const Request &request)
{
    StoreWhole(paths::kRebootPloy, wire::BytesOf(request.packet.ArgumentAs<wire::RebootPloy>()));
    request.answer.before = ReloadRebootPloy;
    Acknowledge(request);
    return 1;
}

struct Command {
    std::uint32_t code;
    const char *log;                        // printed first; NULL: nothing
    int (*handler)(const Request &request); // non-zero to go on, 0 to end the connection
};

constexpr Command kCommands[] = {
    {wire::kSettingEnd, "cmd: end.\n", End},
    {wire::kSettingStart, "cmd: start.\n", Start},
    {wire::kSettingRtsOpen, "cmd: rts open.\n", RtsOpen},
    {wire::kSettingRtsClose, "cmd: rts close.\n", RtsClose},
    {wire::kSettingReadRefresh, "cmd: read rr.\n", ReadRefresh},
    {wire::kSettingSave, "cmd: ss save.\n", Save},
    {wire::kSettingCopyOver, "cmd: hs save.\n", CopyOver},
    {wire::kSettingNotSave, "cmd: not save.\n", NotSave},
    {wire::kSettingReadScreen, "cmd: ss rb.\n", ReadScreen},
    {wire::kSettingReadFile, "cmd: hs rb.\n", ReadFile},
    {wire::kSettingSendToFpga, "cmd: deacidize.\n", SendToFpga},
    {wire::kSettingName, nullptr, Name},
    {wire::kSettingSetClock, nullptr, SetClock},
    {wire::kSettingBrightness, nullptr, Brightness},
    {wire::kSettingLuminanceFile, nullptr, LuminanceFile},
    {wire::kSettingGetClock, "get time start.\n", GetClock},
    {wire::kSettingDebug, "execl(\"/home/root/plexa/start_debug.sh\", 0, 0, environ)\n", Debug},
    {wire::kSettingBootScreen, nullptr, BootScreen},
    {wire::kSettingClearBootScreen, "rm /boot/disp.bin\n", ClearBootScreen},
    {wire::kSettingIdentity, nullptr, Identity},
    {wire::kSettingUnused, nullptr, Refuse},
    {wire::kSettingSlantLine, nullptr, SlantLine},
    {wire::kSettingProbePlayer, nullptr, Probe},
    {wire::kSettingTakePlayerCopy, nullptr, TakePlayerCopy},
    {wire::kSettingReadLuminance, "\n\n----------------------------------------get light file.\n",
     ReadLuminance},
    {wire::kSettingSmartOff, nullptr, SmartOff},
    {wire::kSettingSmartOn, nullptr, SmartOn},
    {wire::kSettingReadPloy, nullptr, ReadPloy},
    {wire::kSettingWritePloy, nullptr, WritePloy},
};

constexpr bool AreInOrder()
{
    std::uint32_t code = 0;
    return std::all_of(std::begin(kCommands), std::end(kCommands),
                       [&code](const Command &command) { return command.code == code++; });
}
static_assert(AreInOrder(), "a command stands at the place of its code");

int HandleCommand(const Request &request)
{
    const std::uint32_t code = request.packet.Code();
    std::printf("serial type cmd. data: %d.\n", static_cast<int>(code));
    if (code >= std::size(kCommands))
        return 0;
    const Command &command = kCommands[code];
    if (command.log != nullptr)
        std::fputs(command.log, stdout);
    return command.handler(request);
}

int HandleFrame(const Request &request)
{
    constexpr std::size_t kFrameLength = 1 + sizeof(wire::FpgaFrame);
    constexpr FrameTrace kTrace = {"serial writed: ", "%x "};
    if (request.packet.Length() != kFrameLength) {
        std::printf("cmd: serial cmd, lengths error: %d.\n", static_cast<int>(request.packet.Length()));
        return 0;
    }
    // It is sent as it came: nobody checks its first and its last byte.
    const auto frame = *wire::Read<wire::FpgaFrame>(request.packet.Payload());
    request.parts.fpga.SendTraced(request.lock, frame, kTrace);
    if (frame.command == wire::kIdModelType)
        g_device.setModelType(static_cast<std::int32_t>(frame.value));
    if (request.parts.rtsFlag)
        request.parts.parameters.Save(request.lock, frame.command, frame.value);
    return 1;
}

} // namespace

int HandleSettingPacket(const SettingLock &lock, SettingParts *parts, SettingClient client, wire::Bytes bytes,
                        SettingAnswer *answer)
{
    const SettingPacket packet(bytes);
    const Request request{.lock = lock,
                          .parts = *parts,
                          .client = client,
                          .packet = packet,
                          .answer = *answer};
    switch (packet.Type()) {
    case wire::kPacketCommand:
        return HandleCommand(request);
    case wire::kPacketFrame:
        return HandleFrame(request);
    case wire::kPacketData:
        return parts->staging.Append(lock, packet.Payload()) ? 1 : 0;
    default:
        return 0;
    }
}

void ProbePlayer()
{
    constexpr std::size_t kMaxAnswer = 29;
    ReadShell("pidof plexa", kMaxAnswer);
}
