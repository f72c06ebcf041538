// SPDX-License-Identifier: MIT
#include "remote/received_file.h"

#include "base/shell.h"
#include "records/remote_crc.h"
#include "records/remote_records.h"
#include "remote/device_context.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace
{

constexpr char kChunkMark = '1';

FilePointer OpenUnbuffered(const std::string &path, const char *mode)
{
    FilePointer file = OpenFile(path, mode);
    if (file)
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
    return file;
}

} // namespace

bool ReceivedFile::Open(const std::string &path, const char *mode)
{
    Close();
    const std::string table = path + wire::kTableSuffix;
    // QUIRK remote-backslash-folder: a backslash ends the folder as well, so that "a\b" makes a folder "a"
    // beside the file "a\b"; only the slash would be expected to count.
    MakeFolders(path.substr(0, path.find_last_of("/\\")));
    FilePointer file = OpenUnbuffered(path, mode);
    s_bakFile = OpenUnbuffered(table, mode);
    if (!file || !s_bakFile) {
        s_bakFile.reset();
        return false;
    }
    std::fseek(file.get(), 0, SEEK_END);
    record_->file = file.release();
    // QUIRK resume-crc: the CRC begins anew where a transfer is resumed, what was received before is not in
    // it; the CRC of the whole file would be expected.
    record_->crc32 = wire::kCrcStart;
    s_bakFilename = table;
    return true;
}

bool ReceivedFile::Store(wire::Bytes chunk)
{
    if (record_->file == nullptr || !s_bakFile)
        return false;
    const off_t before = lseek(fileno(record_->file), 0, SEEK_END);
    const bool stored = std::fwrite(chunk.data(), 1, chunk.size(), record_->file) == chunk.size() &&
                        std::fwrite(&kChunkMark, 1, 1, s_bakFile.get()) == 1;
    if (stored) {
        record_->crc32 = wire::AdvanceCrc(record_->crc32, chunk);
        return true;
    }
    // On a full disk a part may be there. It goes, since the server sends the whole chunk again.
    if (before >= 0 && ftruncate(fileno(record_->file), before) == 0)
        std::fseek(record_->file, 0, SEEK_END);
    return false;
}

void ReceivedFile::Close()
{
    if (record_->file != nullptr)
        std::fclose(std::exchange(record_->file, nullptr));
    s_bakFile.reset();
}

void ReceivedFile::Complete()
{
    const bool hasTable = s_bakFile != nullptr;
    Close();
    if (hasTable) {
        const std::string command = "rm " + ShellName(s_bakFilename);
        std::printf("cmd: %s\n", command.c_str());
        RunShell(command);
    }
    s_bakFilename.clear();
}

std::optional<std::size_t> TableReader::Read(const std::string &path, wire::MutableBytes room)
{
    if (path_ != path)
        Close();
    std::printf("bak: %s\n", path.c_str());
    if (!s_readBakFile)
        s_readBakFile = OpenFile(path, "rb");
    path_ = path;
    if (!s_readBakFile) {
        RunShell("rm " + ShellName(path));
        return std::nullopt;
    }
    const std::size_t count = std::fread(room.data(), 1, room.size(), s_readBakFile.get());
    if (count == 0)
        Close();
    return count;
}

void TableReader::Close()
{
    s_readBakFile.reset();
    path_.clear();
}
