// SPDX-License-Identifier: MIT
// Files that clients send to the setting service and read from it.
#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "records/player_records.h"
#include "settings/setting_commands.h"
#include "settings/setting_copies.h"
#include "state/device_record.h"
#include "state/setting_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

int g_luminance_flush_flag = 0; // 1: the luminance file under way goes straight to the internal disk

namespace
{

constexpr char kUnit[] = "src/serial_thread";

bool Exists(const char *path)
{
    return access(path, F_OK) == 0;
}

// What was written is in the kernel's hands; with `synced` it is on the disk.
bool Finish(std::FILE *file, bool synced)
{
    return std::fflush(file) == 0 && std::ferror(file) == 0 && (!synced || fsync(fileno(file)) == 0);
}

void EnsureSettingFolder()
{
    // QUIRK relative-folder-test: the folder is looked for relative to where the daemon was started, so that
    // it is mostly missed and made again in vain; the absolute path would be expected.
    if (!IsFolder("home/root/plexa_data"))
        mkdir(paths::kPlexaData, 0700);
}

// Copies over what is there, in blocks; a longer target keeps its tail. False when it could not be stored.
bool CopyOverFile(std::FILE *from, std::FILE *to)
{
    std::array<char, 256> block;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), from))
        std::fwrite(block.data(), 1, count, to);
    return Finish(to, true);
}

const char *LuminancePath()
{
    const bool usb = Exists(paths::kUsbLuminanceFile);
    g_luminance_flush_flag = usb ? 0 : 1;
    return usb ? paths::kUsbLuminanceFile : paths::kLuminanceFile;
}

void TellPlayerOfLuminance()
{
    const wire::PlayerMessage message{.length = sizeof(wire::PlayerMessage),
                                      .kind = wire::kPlayerKind,
                                      .code = wire::SS_CMD_LUMINANCE_FILE};
    SendMessageToPlexa(&message, sizeof message);
}

void LuminanceStored(SettingAnswer *answer)
{
    std::printf("g_luminance_flush_flag: %d\n", g_luminance_flush_flag);
    if (g_luminance_flush_flag == 0) {
        const std::string command =
            std::string("cp ") + paths::kUsbLuminanceFile + " " + paths::kLuminanceFile;
        RunAndSync(command.c_str(), paths::kLuminanceFile);
        std::printf("buff: %s\n", command.c_str());
    }
    RunShell("sync");
    answer->before = TellPlayerOfLuminance;
}

const char *BootScreenPath()
{
    return paths::kBootScreen;
}

void BootScreenStored(SettingAnswer *)
{
    std::printf("recv boot screen file ok.\n");
    g_device.setBootScreenFlag(1);
}

} // namespace

const KSerialThread::Commands::TransferKind KSerialThread::Commands::kLuminanceTransfer =
    {.openLine = 1458, .kindLine = 1541, .choosePath = LuminancePath, .stored = LuminanceStored};
const KSerialThread::Commands::TransferKind KSerialThread::Commands::kBootScreenTransfer =
    {.openLine = 1577, .kindLine = 1605, .choosePath = BootScreenPath, .stored = BootScreenStored};

bool KSerialThread::CloseStaging()
{
    if (!stagingFile)
        return true;
    const bool stored = Finish(stagingFile.get(), false);
    if (!stored) {
        DiagErrno(kUnit, __func__, __LINE__, "write setting.ss.bak: ");
        unlink(paths::kStagedSetting);
    }
    stagingFile.reset();
    return stored;
}

int KSerialThread::HandleData()
{
    const auto length = std::to_integer<std::size_t>(packet[0]);
    if (!stagingFile)
        return 1;
    const wire::Bytes data = wire::Bytes(packet).subspan(sizeof(wire::SettingHeader), length - 1);
    if (std::fwrite(data.data(), 1, data.size(), stagingFile.get()) == data.size())
        return 1;
    CloseStaging();
    return 0;
}

int KSerialThread::Commands::Start()
{
    service_->CloseStaging();
    service_->stagingFile = OpenFile(paths::kStagedSetting, "wb");
    return service_->stagingFile ? 1 : 0;
}

int KSerialThread::Commands::NotSave()
{
    service_->CloseStaging();
    return 1;
}

int KSerialThread::Commands::SendToFpga()
{
    service_->CloseStaging();
    service_->stagingFile = OpenFile(paths::kStagedSetting, "rb+");
    service_->SendSettings();
    return 1;
}

void KSerialThread::Commands::WorkingCopyChanged()
{
    RewriteBootCopy(true);
    RefreshScreenSize();
}

void KSerialThread::Commands::StageAgain()
{
    service_->stagingFile = OpenFile(paths::kStagedSetting, "rb+");
    service_->LoadCaches();
    RunShell("sync");
}

int KSerialThread::Commands::Save()
{
    if (!service_->CloseStaging())
        return 0;
    EnsureSettingFolder();
    RunAndSync("mv setting.ss.bak /home/root/plexa_data/setting.ss", paths::kSetting);
    WorkingCopyChanged();
    StageAgain();
    return 1;
}

int KSerialThread::Commands::CopyOver()
{
    if (!service_->CloseStaging())
        return 0;
    const FilePointer staged = OpenFile(paths::kStagedSetting, "rb");
    EnsureSettingFolder();
    FilePointer working = OpenFile(paths::kSetting, "rb+");
    if (!working)
        working = OpenFile(paths::kSetting, "wb");
    // QUIRK copy-keeps-tail: the working copy is not cut to the staged file's length, what lies behind stays;
    // an equal copy would be expected.
    const bool stored = !staged || !working || CopyOverFile(staged.get(), working.get());
    if (!stored)
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write setting.ss: ");
    if (working) {
        working.reset();
        std::printf("copy /home/root/plexa_data/setting.ss to /boot\n");
        WorkingCopyChanged();
    }
    StageAgain();
    return stored ? 1 : 0;
}

int KSerialThread::Commands::LuminanceFile()
{
    return Receive(kLuminanceTransfer, &service_->luminanceFile);
}

int KSerialThread::Commands::BootScreen()
{
    return Receive(kBootScreenTransfer, &service_->bootScreenFile);
}

int KSerialThread::Commands::Receive(const TransferKind &kind, Transfer *transfer)
{
    constexpr unsigned kNoKind = 0x100; // an empty packet is no first chunk, which would empty the stored
                                        // file
    switch (Argument().empty() ? kNoKind : ArgumentWord() & 0xFF) {
    case wire::kChunkData:
        return ReceiveData(kind, transfer);
    case wire::kChunkEnd:
        return ReceiveEnd(kind, transfer);
    default:
        std::printf("%d.\n", kind.kindLine);
        return 0;
    }
}

int KSerialThread::Commands::ReceiveData(const TransferKind &kind, Transfer *transfer)
{
    if (transfer->failed)
        return 0;
    if (!transfer->file) {
        *transfer = {.file = OpenFile(kind.choosePath(), "wb"), .client = client_};
        if (!transfer->file) {
            std::printf("%d.\n", kind.openLine);
            transfer->failed = true;
            return 0;
        }
    }
    const wire::Bytes argument = Argument();
    const wire::Bytes data = argument.subspan(argument.empty() ? 0 : 1);
    std::fwrite(data.data(), 1, data.size(), transfer->file.get());
    if (Finish(transfer->file.get(), false))
        return 1;
    DiagErrno(kUnit, "DisposePacket", __LINE__, "write of command %d: ", static_cast<int>(code_));
    transfer->file.reset();
    transfer->failed = true;
    return 0;
}

int KSerialThread::Commands::ReceiveEnd(const TransferKind &kind, Transfer *transfer)
{
    const bool stored = transfer->file && Finish(transfer->file.get(), true);
    if (transfer->file && !stored)
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write of command %d: ", static_cast<int>(code_));
    *transfer = {};
    if (stored)
        kind.stored(answer_);
    wire::ChunkResult result{.command = {.header = {.length = sizeof(wire::ChunkResult) - 1,
                                                    .type = wire::kPacketCommand},
                                         .code = code_},
                             .status = stored ? 1U : 0U};
    answer_->Reply(result);
    return 1;
}

int KSerialThread::Commands::ReadLuminance()
{
    constexpr std::size_t kBlock = 256;
    const bool usb = Exists(paths::kUsbLuminanceFile);
    answer_->file = OpenFile(usb ? paths::kUsbLuminanceFile : paths::kLuminanceFile, "rb");
    if (!answer_->file) {
        // QUIRK two-zero-bytes: a missing file is told in two bytes; four would be expected, as its size has.
        answer_->reply.assign(2, '\0');
        answer_->after = [](std::size_t) { std::printf("sends: %d.\nopen luminance file fail.\n", 2); };
        return 1;
    }
    struct stat status = {};
    fstat(fileno(answer_->file.get()), &status);
    answer_->Reply(wire::U32(static_cast<std::uint32_t>(status.st_size)));
    answer_->blockSize = kBlock;
    answer_->blockLog = "sends: ";
    answer_->after = [](std::size_t) { std::printf("\n\n--------------------------------------\n"); };
    return 1;
}
