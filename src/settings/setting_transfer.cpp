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

#include <algorithm>
#include <array>
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

const char *LuminancePath()
{
    const bool usb = Exists(paths::kUsbLuminanceFile);
    g_luminance_flush_flag = usb ? 0 : 1;
    return usb ? paths::kUsbLuminanceFile : paths::kLuminanceFile;
}

// The content beside the luminance file while "cp" overwrites that one in place.
std::string SafeCopyPath()
{
    return std::string(paths::kLuminanceFile) + ".copy";
}

bool PutSafeCopyInPlace()
{
    return std::rename(SafeCopyPath().c_str(), paths::kLuminanceFile) == 0 && SyncFile(paths::kLuminanceFile);
}

bool CopyWhole(const char *from, const std::string &to)
{
    const FilePointer source = OpenFile(from, "rb");
    FileReplacement copy(to);
    if (!source || copy.Stream() == nullptr)
        return false;
    std::array<char, 4096> block;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), source.get())) {
        if (std::fwrite(block.data(), 1, count, copy.Stream()) != count)
            return false;
    }
    return std::ferror(source.get()) == 0 && copy.Commit();
}

void CopyFromUsb()
{
    const std::string command = std::string("cp ") + paths::kUsbLuminanceFile + " " + paths::kLuminanceFile;
    const bool safe = CopyWhole(paths::kUsbLuminanceFile, SafeCopyPath());
    bool copied = RunShell(command) == 0 && SyncFile(paths::kLuminanceFile);
    if (safe && copied)
        unlink(SafeCopyPath().c_str());
    else if (safe)
        copied = PutSafeCopyInPlace();
    std::printf("buff: %s\n", command.c_str());
    if (!copied)
        Diag(kUnit, "DisposePacket", __LINE__, "the luminance file was not copied from the USB disk.");
}

void LuminanceStored(SettingAnswer *answer)
{
    std::printf("g_luminance_flush_flag: %d\n", g_luminance_flush_flag);
    if (g_luminance_flush_flag == 0)
        CopyFromUsb();
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
        return ReceiveEnd(client, answer);
    default:
        std::printf("%d.\n", kind_.commandLine);
        return 0;
    }
}

int SettingTransfer::ReceiveChunk(SettingClient client, wire::Bytes chunk)
{
    if (HasFailed(client)) {
        // Nothing is stored, but a file that still cannot be opened says so again.
        if (!file_.IsOpen() && Begin(client))
            Forget();
        return 0;
    }
    if (!file_.IsOpen() && !Begin(client)) {
        failed_.push_back(client);
        return 0;
    }
    if (file_.Append(chunk))
        return 1;
    DiagErrno(kUnit, "DisposePacket", __LINE__, "write of command %d: ", static_cast<int>(kind_.code));
    failed_.push_back(client);
    if (client_ != client)
        failed_.push_back(client_);
    Forget();
    return 0;
}

int SettingTransfer::ReceiveEnd(SettingClient client, SettingAnswer *answer)
{
    bool stored = false;
    if (HasFailed(client)) {
        std::erase(failed_, client);
    } else if (file_.IsOpen()) {
        stored = file_.Commit();
        if (!stored)
            DiagErrno(kUnit, "DisposePacket", __LINE__,
                      "write of command %d: ", static_cast<int>(kind_.code));
        Forget();
    }
    if (stored)
        kind_.stored(answer);
    const wire::ChunkResult result{.command = MakeSettingCommand(kind_.code, sizeof(wire::ChunkResult)),
                                   .status = stored ? 1U : 0U};
    answer->Reply(result);
    return 1;
}

bool SettingTransfer::Begin(SettingClient client)
{
    if (!file_.Open(kind_.choosePath())) {
        std::printf("%d.\n", kind_.openLine);
        return false;
    }
    client_ = client;
    return true;
}

bool SettingTransfer::HasFailed(SettingClient client) const
{
    return std::ranges::find(failed_, client) != failed_.end();
}

void SettingTransfer::Abandon(const SettingLock &, SettingClient client)
{
    std::erase(failed_, client);
    if (client_ == client)
        Forget();
}

void SettingTransfer::Forget()
{
    file_.Drop();
    client_ = nullptr;
}

void RestoreLuminanceFile(const SettingLock &)
{
    if (Exists(SafeCopyPath().c_str()) && !PutSafeCopyInPlace())
        DiagErrno(kUnit, "Init", __LINE__, "restore luminance_file: ");
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
