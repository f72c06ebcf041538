// SPDX-License-Identifier: MIT
#include "settings/setting_transfer.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "settings/setting_answer.h"
#include "settings/setting_packet.h"
#include "state/device_record.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int g_luminance_flush_flag = 0; // 1: the luminance file on its way goes straight to the internal disk

namespace
{

constexpr char kUnit[] = "src/serial_thread";

bool Exists(const char *path)
{
    return access(path, F_OK) == 0;
}

// False if a write failed, also an earlier one.
bool Flush(std::FILE *file)
{
    return std::fflush(file) == 0 && std::ferror(file) == 0;
}

const char *LuminancePath()
{
    const bool usb = Exists(paths::kUsbLuminanceFile);
    g_luminance_flush_flag = usb ? 0 : 1;
    return usb ? paths::kUsbLuminanceFile : paths::kLuminanceFile;
}

void LuminanceStored(SettingAnswer *answer)
{
    std::printf("g_luminance_flush_flag: %d\n", g_luminance_flush_flag);
    if (g_luminance_flush_flag == 0) {
        const std::string command =
            std::string("cp ") + paths::kUsbLuminanceFile + " " + paths::kLuminanceFile;
        RunShell(command);
        SyncFile(paths::kLuminanceFile);
        std::printf("buff: %s\n", command.c_str());
    }
    RunShell("sync");
    answer->before = [] { SendCodeToPlexa(wire::SS_CMD_LUMINANCE_FILE); };
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

const SettingTransferKind kLuminanceTransfer = {.code = wire::kSettingLuminanceFile,
                                                .openLine = 1458,
                                                .commandLine = 1541,
                                                .choosePath = LuminancePath,
                                                .stored = LuminanceStored};
const SettingTransferKind kBootScreenTransfer = {.code = wire::kSettingBootScreen,
                                                 .openLine = 1577,
                                                 .commandLine = 1605,
                                                 .choosePath = BootScreenPath,
                                                 .stored = BootScreenStored};

int SettingTransfer::Receive(const SettingLock &, SettingClient client, wire::Bytes argument,
                             SettingAnswer *answer)
{
    // A packet without a sub-command must not count as sub-command 0: as a first chunk it would empty the
    // stored file.
    constexpr unsigned kNoCommand = 0x100;
    switch (argument.empty() ? kNoCommand : std::to_integer<unsigned>(argument[0])) {
    case wire::kChunkData:
        return ReceiveChunk(client, argument.subspan(1));
    case wire::kChunkEnd:
        return ReceiveEnd(answer);
    default:
        std::printf("%d.\n", kind_.commandLine);
        return 0;
    }
}

int SettingTransfer::ReceiveChunk(SettingClient client, wire::Bytes chunk)
{
    if (failed_)
        return 0;
    if (!file_) {
        client_ = client;
        file_ = OpenFile(kind_.choosePath(), "wb");
        if (!file_) {
            std::printf("%d.\n", kind_.openLine);
            failed_ = true;
            return 0;
        }
    }
    std::fwrite(chunk.data(), 1, chunk.size(), file_.get());
    if (Flush(file_.get()))
        return 1;
    DiagErrno(kUnit, "DisposePacket", __LINE__, "write of command %d: ", static_cast<int>(kind_.code));
    file_.reset();
    failed_ = true;
    return 0;
}

int SettingTransfer::ReceiveEnd(SettingAnswer *answer)
{
    const bool stored = file_ && Flush(file_.get()) && fsync(fileno(file_.get())) == 0;
    if (file_ && !stored)
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write of command %d: ", static_cast<int>(kind_.code));
    Forget();
    if (stored)
        kind_.stored(answer);
    const wire::ChunkResult result{.command = MakeSettingCommand(kind_.code, sizeof(wire::ChunkResult)),
                                   .status = stored ? 1U : 0U};
    answer->Reply(result);
    return 1;
}

void SettingTransfer::Abandon(const SettingLock &, SettingClient client)
{
    if (client_ == client)
        Forget();
}

void SettingTransfer::Forget()
{
    file_.reset();
    client_ = nullptr;
    failed_ = false;
}

void AnswerLuminanceFile(const SettingLock &, SettingAnswer *answer)
{
    constexpr std::size_t kBlock = 256;
    const bool usb = Exists(paths::kUsbLuminanceFile);
    answer->file = OpenFile(usb ? paths::kUsbLuminanceFile : paths::kLuminanceFile, "rb");
    if (!answer->file) {
        // QUIRK two-zero-bytes: a missing file is answered with two bytes; four would be expected, the length
        // of a size.
        answer->reply.assign(2, '\0');
        answer->after = [](std::size_t) { std::printf("sends: %d.\nopen luminance file fail.\n", 2); };
        return;
    }
    struct stat status = {};
    fstat(fileno(answer->file.get()), &status);
    answer->Reply(wire::U32(static_cast<std::uint32_t>(status.st_size)));
    answer->blockSize = kBlock;
    answer->blockLog = "sends: ";
    answer->after = [](std::size_t) { std::printf("\n\n--------------------------------------\n"); };
}
