// SPDX-License-Identifier: MIT
#include "settings/setting_staging.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>

namespace
{

constexpr char kUnit[] = "src/serial_thread";

void EnsureSettingFolder()
{
    // QUIRK relative-folder-test: the folder is looked for relative to where the daemon was started, so that
    // it is usually not found and made again in vain; the absolute path would be expected.
    if (!IsFolder("home/root/plexa_data"))
        mkdir(paths::kPlexaData, 0700);
}

// From the start of both files. False if a write failed.
bool CopyContent(std::FILE *from, std::FILE *to)
{
    std::array<char, 256> block;
    while (const std::size_t count = std::fread(block.data(), 1, block.size(), from))
        std::fwrite(block.data(), 1, count, to);
    return std::fflush(to) == 0 && std::ferror(to) == 0 && fsync(fileno(to)) == 0;
}

} // namespace

bool SettingStaging::Begin(const SettingLock &lock)
{
    Close(lock);
    stagingFile = OpenFile(paths::kStagedSetting, "wb");
    return stagingFile != nullptr;
}

bool SettingStaging::Reopen(const SettingLock &lock)
{
    Close(lock);
    stagingFile = OpenFile(paths::kStagedSetting, "rb+");
    return stagingFile != nullptr;
}

bool SettingStaging::Append(const SettingLock &lock, wire::Bytes piece)
{
    if (!stagingFile || std::fwrite(piece.data(), 1, piece.size(), stagingFile.get()) == piece.size())
        return true;
    Close(lock);
    return false;
}

bool SettingStaging::Close(const SettingLock &)
{
    if (!stagingFile)
        return true;
    const bool stored = std::fflush(stagingFile.get()) == 0 && std::ferror(stagingFile.get()) == 0;
    if (!stored) {
        DiagErrno(kUnit, "CloseStaging", __LINE__, "write setting.ss.bak: ");
        unlink(paths::kStagedSetting);
    }
    stagingFile.reset();
    return stored;
}

void SettingStaging::MoveToWorkingCopy(const SettingLock &)
{
    EnsureSettingFolder();
    RunShell("mv setting.ss.bak /home/root/plexa_data/setting.ss");
    SyncFile(paths::kSetting);
}

SettingStaging::CopyResult SettingStaging::CopyToWorkingCopy(const SettingLock &)
{
    const FilePointer staged = OpenFile(paths::kStagedSetting, "rb");
    EnsureSettingFolder();
    FilePointer working = OpenFile(paths::kSetting, "rb+");
    if (!working)
        working = OpenFile(paths::kSetting, "wb");
    if (!working)
        return {.opened = false, .stored = true};
    // QUIRK copy-keeps-tail: the working copy is not truncated to the staged file's length, what follows
    // stays; an equal copy would be expected.
    const bool stored = !staged || CopyContent(staged.get(), working.get());
    if (!stored)
        DiagErrno(kUnit, "DisposePacket", __LINE__, "write setting.ss: ");
    std::printf("copy /home/root/plexa_data/setting.ss to /boot\n");
    return {.opened = true, .stored = stored};
}
