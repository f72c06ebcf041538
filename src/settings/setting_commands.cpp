// SPDX-License-Identifier: MIT
#include "settings/setting_commands.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "settings/reboot_ploy.h"
#include "settings/setting_copies.h"
#include "state/device_record.h"
#include "state/setting_file.h"

#include <QDateTime>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr std::size_t kArgumentOffset = sizeof(wire::SettingCommand);
constexpr std::size_t kCommandRest = kArgumentOffset - 1; // of the length byte's count

wire::SettingCommand MakeCommand(std::uint32_t code, std::size_t size)
{
    return {.header = {.length = static_cast<std::uint8_t>(size - 1), .type = wire::kPacketCommand},
            .code = code};
}

// Records of the working copy with one of these ids, as they follow one another behind the header, into the
// slots of a list. False when there is no working copy (errno).
template <std::size_t Slots, std::size_t Ids>
bool FillList(std::array<wire::SettingRecord, Slots> *list, const std::array<std::uint32_t, Ids> &ids)
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

std::string LocalTime(std::int64_t milliseconds)
{
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(milliseconds);
    return time.isValid() ? time.toString("yyyy-MM-dd hh:mm:ss").toStdString() : std::string();
}

void StoreWhole(const char *path, wire::Bytes bytes)
{
    const std::string content(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    if (!ReplaceFile(path, content))
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write %s: ", path);
}

} // namespace

const std::array<KSerialThread::Commands::Row, 29> KSerialThread::Commands::kRows = {{
    {wire::kSettingEnd, "cmd: end.\n", &Commands::End},
    {wire::kSettingStart, "cmd: start.\n", &Commands::Start},
    {wire::kSettingRtsOpen, "cmd: rts open.\n", &Commands::RtsOpen},
    {wire::kSettingRtsClose, "cmd: rts close.\n", &Commands::RtsClose},
    {wire::kSettingReadRefresh, "cmd: read rr.\n", &Commands::ReadRefresh},
    {wire::kSettingSave, "cmd: ss save.\n", &Commands::Save},
    {wire::kSettingCopyOver, "cmd: hs save.\n", &Commands::CopyOver},
    {wire::kSettingNotSave, "cmd: not save.\n", &Commands::NotSave},
    {wire::kSettingReadScreen, "cmd: ss rb.\n", &Commands::ReadScreen},
    {wire::kSettingReadFile, "cmd: hs rb.\n", &Commands::ReadFile},
    {wire::kSettingSendToFpga, "cmd: deacidize.\n", &Commands::SendToFpga},
    {wire::kSettingName, nullptr, &Commands::Name},
    {wire::kSettingSetClock, nullptr, &Commands::SetClock},
    {wire::kSettingBrightness, nullptr, &Commands::Brightness},
    {wire::kSettingLuminanceFile, nullptr, &Commands::LuminanceFile},
    {wire::kSettingGetClock, "get time start.\n", &Commands::GetClock},
    {wire::kSettingDebug, "execl(\"/home/root/plexa/start_debug.sh\", 0, 0, environ)\n", &Commands::Debug},
    {wire::kSettingBootScreen, nullptr, &Commands::BootScreen},
    {wire::kSettingClearBootScreen, "rm /boot/disp.bin\n", &Commands::ClearBootScreen},
    {wire::kSettingIdentity, nullptr, &Commands::Identity},
    {wire::kSettingUnused, nullptr, &Commands::Refuse},
    {wire::kSettingSlantLine, nullptr, &Commands::SlantLine},
    {wire::kSettingProbePlayer, nullptr, &Commands::Probe},
    {wire::kSettingTakePlayerCopy, nullptr, &Commands::TakePlayerCopy},
    {wire::kSettingReadLuminance, "\n\n----------------------------------------get light file.\n",
     &Commands::ReadLuminance},
    {wire::kSettingSmartOff, nullptr, &Commands::SmartOff},
    {wire::kSettingSmartOn, nullptr, &Commands::SmartOn},
    {wire::kSettingReadPloy, nullptr, &Commands::ReadPloy},
    {wire::kSettingWritePloy, nullptr, &Commands::WritePloy},
}};

KSerialThread::Commands::Commands(KSerialThread *service, Client client, SettingAnswer *answer)
    : service_(service), client_(client), answer_(answer)
{
}

int KSerialThread::Commands::Run(std::uint32_t code)
{
    if (code >= kRows.size())
        return 0;
    code_ = code;
    const Row &row = kRows[code];
    if (row.log != nullptr)
        std::fputs(row.log, stdout);
    return (this->*row.handler)();
}

wire::Bytes KSerialThread::Commands::Argument() const
{
    const auto length = std::to_integer<std::size_t>(service_->packet[0]);
    return wire::Bytes(service_->packet)
        .subspan(kArgumentOffset, length < kCommandRest ? 0 : length - kCommandRest);
}

const char *KSerialThread::Commands::ArgumentText() const
{
    return reinterpret_cast<const char *>(service_->packet.data() + kArgumentOffset);
}

std::uint32_t KSerialThread::Commands::ArgumentWord() const
{
    return *wire::Read<wire::U32>(service_->packet, kArgumentOffset);
}

void KSerialThread::Commands::Acknowledge()
{
    answer_->Reply(MakeCommand(code_, sizeof(wire::SettingCommand)));
}

int KSerialThread::Commands::End()
{
    service_->CloseStaging();
    answer_->shutdown = true;
    return 0;
}

int KSerialThread::Commands::RtsOpen()
{
    service_->rtsFlag = true;
    return 1;
}

int KSerialThread::Commands::RtsClose()
{
    service_->rtsFlag = false;
    RefreshScreenSize();
    return 1;
}

int KSerialThread::Commands::ReadRefresh()
{
    constexpr std::array<std::uint32_t, 5> kIds = {3, 4, 12, 14, 18};
    std::array<wire::SettingRecord, wire::kRefreshListSlots> list;
    if (!FillList(&list, kIds))
        std::printf("open setting.ss fail: %s.\n", std::strerror(errno));
    answer_->Reply(list);
    answer_->after = [](std::size_t) { std::printf("read rr send finish.\n"); };
    return 1;
}

int KSerialThread::Commands::ReadScreen()
{
    constexpr std::array<std::uint32_t, 9> kIds = {3, 9, 11, 12, 18, 26, 27, 254, 255};
    std::array<wire::SettingRecord, wire::kScreenListSlots> list;
    if (FillList(&list, kIds)) {
        service_->SetBrightness(static_cast<std::uint8_t>(service_->brightnessPercent));
        list.back() = {.id = wire::kIdBrightnessPercent, .value = service_->brightnessPercent};
    }
    answer_->Reply(list);
    return 1;
}

int KSerialThread::Commands::ReadFile()
{
    answer_->file = OpenFile(paths::kSetting, "rb");
    if (answer_->file) {
        answer_->Reply(
            wire::SettingRecord{.id = wire::kIdBrightnessPercent, .value = service_->brightnessPercent});
        std::printf("luminance per: %d.\n", static_cast<int>(service_->brightnessPercent));
    }
    answer_->blockSize = sizeof(wire::SettingRecord);
    answer_->shortLog = "send setting.ss file fail.";
    answer_->tail.assign(sizeof(wire::SettingRecord), '\0');
    answer_->after = [](std::size_t fileBytes) {
        std::printf("sends size: %d\n", static_cast<int>(fileBytes + sizeof(wire::SettingRecord)));
    };
    return 1;
}

int KSerialThread::Commands::Name()
{
    g_device.setDeviceName(ArgumentText());
    StoreWhole(paths::kDeviceName, wire::BytesAt(ArgumentText(), std::strlen(ArgumentText())));
    return 1;
}

int KSerialThread::Commands::SetClock()
{
    const std::string time = LocalTime(*wire::Read<wire::I64>(service_->packet, kArgumentOffset));
    answer_->before = [time] {
        if (time.empty())
            return;
        const std::string command = "date -s \"" + time + "\"; hwclock -w;";
        std::printf("system(%s).\n", command.c_str());
        RunShell(command);
    };
    Acknowledge();
    answer_->after = [](std::size_t) { ReloadRebootPloy(); };
    return 1;
}

int KSerialThread::Commands::Brightness()
{
    service_->SetBrightness(static_cast<std::uint8_t>(ArgumentWord()));
    service_->SendBrightness();
    RefreshScreenSize();
    return 1;
}

int KSerialThread::Commands::GetClock()
{
    const wire::SettingTime reply{.command = MakeCommand(code_, sizeof(wire::SettingTime)),
                                  .milliseconds = QDateTime::currentMSecsSinceEpoch()};
    answer_->Reply(reply);
    answer_->after = [](std::size_t) { std::printf("send size: %d.\n", static_cast<int>(sizeof reply)); };
    return 1;
}

int KSerialThread::Commands::Debug()
{
    service_->debugFlag = true;
    Acknowledge();
    return 0;
}

int KSerialThread::Commands::ClearBootScreen()
{
    RunShell("rm /boot/disp.bin");
    g_device.setBootScreenFlag(0);
    Acknowledge();
    return 1;
}

int KSerialThread::Commands::Identity()
{
    const wire::Bytes identity = Argument();
    if (identity.empty())
        return 1;
    StoreWhole(paths::kDeviceId, identity);
    g_device.setID(ArgumentText());
    return 1;
}

int KSerialThread::Commands::Refuse()
{
    return 0;
}

int KSerialThread::Commands::SlantLine()
{
    const std::uint32_t on = ArgumentWord();
    if (on <= 1)
        answer_->before = [on] { PaintSlantLine(on == 1); };
    return 1;
}

int KSerialThread::Commands::Probe()
{
    answer_->before = ProbePlayer;
    return 1;
}

int KSerialThread::Commands::TakePlayerCopy()
{
    service_->CopyFromPlayer();
    RefreshScreenSize();
    service_->SendSettings();
    return 1;
}

int KSerialThread::Commands::SmartOff()
{
    answer_->before = [] { SmartSettingFlag(false); };
    return 1;
}

int KSerialThread::Commands::SmartOn()
{
    answer_->before = [] { SmartSettingFlag(true); };
    return 1;
}

int KSerialThread::Commands::ReadPloy()
{
    constexpr int kLogLine = 1745;
    std::printf("%s::%d get reboot ploy.\n", "DisposePacket", kLogLine);
    wire::RebootPloyReply reply{.command = MakeCommand(code_, sizeof(wire::RebootPloyReply)), .ploy = {}};
    const auto content = ReadFileStart(paths::kRebootPloy, sizeof reply.ploy);
    if (content)
        std::memcpy(&reply.ploy, content->data(), content->size());
    answer_->Reply(reply);
    return 1;
}

int KSerialThread::Commands::WritePloy()
{
    StoreWhole(paths::kRebootPloy,
               wire::Bytes(service_->packet).subspan(kArgumentOffset, sizeof(wire::RebootPloy)));
    answer_->before = ReloadRebootPloy;
    Acknowledge();
    return 1;
}
