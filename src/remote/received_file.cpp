// SPDX-License-Identifier: MIT
#include "remote/received_file.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/safe_name.h"
#include "base/shell.h"
#include "records/remote_crc.h"
#include "remote/client.h"
#include "remote/device_context.h"
#include "state/server_status.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

namespace remote
{

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr char kChunkMark = '1';

FilePointer s_bakFile;     // the table of the file being received
std::string s_bakFilename; // its path
FilePointer s_readBakFile; // the table that the server is reading
std::string s_readName;    // the name that it asked for

bool SendNameResult(DeviceContext *context, const char *function, wire::Bytes packet, wire::RemoteReply code,
                    std::uint32_t result)
{
    const wire::RemoteNameReply reply{.named = NamedReply(packet, sizeof reply, code), .result = result};
    return SendReply(context, function, wire::BytesOf(reply));
}

// Opens without a buffer.
FilePointer OpenDirect(const std::string &path, const char *mode)
{
    FilePointer file = OpenFile(path, mode);
    if (file)
        std::setvbuf(file.get(), nullptr, _IONBF, 0);
    return file;
}

// Opens the named file and its table. True when both are open; else neither is.
bool OpenForReception(DeviceContext *context, wire::Bytes packet, const char *mode)
{
    CloseReceivedFile(context);
    const std::optional<std::string> path = ProgramPath(context, packet);
    if (!path)
        return false;
    const std::string table = *path + wire::kTableSuffix;
    // QUIRK remote-backslash-folder: a backslash ends the folder as well, so that "a\b" makes a folder "a"
    // beside the file "a\b"; only the slash would be expected to count.
    MakeFolders(path->substr(0, path->find_last_of("/\\")));
    FilePointer file = OpenDirect(*path, mode);
    s_bakFile = OpenDirect(table, mode);
    if (!file || !s_bakFile) {
        s_bakFile.reset();
        return false;
    }
    std::fseek(file.get(), 0, SEEK_END);
    context->file = file.release();
    // QUIRK resume-crc: the CRC begins anew where a transfer is resumed, what was received before is not in
    // it; the CRC of the whole file would be expected.
    context->crc32 = wire::kCrcStart;
    s_bakFilename = table;
    return true;
}

// Stores a chunk and then its mark. False when not all of both got there; the file is as before then.
bool StoreChunk(const DeviceContext *context, wire::Bytes data)
{
    const off_t before = lseek(fileno(context->file), 0, SEEK_END);
    const bool stored = std::fwrite(data.data(), 1, data.size(), context->file) == data.size() &&
                        std::fwrite(&kChunkMark, 1, 1, s_bakFile.get()) == 1;
    if (stored)
        return true;
    if (before >= 0 && ftruncate(fileno(context->file), before) == 0)
        std::fseek(context->file, 0, SEEK_END);
    return false;
}

std::string TablePath(const DeviceContext *context, const std::string &name)
{
    return std::string(context->programDir) + "/" + name + wire::kTableSuffix;
}

// Opens the table for reading, or goes on with the one that is open. False when there is none.
bool OpenReadTable(const DeviceContext *context, const std::string &name)
{
    if (s_readName != name)
        CloseReadTable();
    const std::string path = TablePath(context, name);
    std::printf("bak: %s\n", path.c_str());
    if (!s_readBakFile)
        s_readBakFile = OpenFile(path, "rb");
    s_readName = name;
    if (s_readBakFile)
        return true;
    RunShell("rm " + ShellName(path));
    return false;
}

void RunAndPrint(const char *what, const std::string &command)
{
    std::printf("%s: %s\n", what, command.c_str());
    RunShell(command);
}

} // namespace

std::optional<std::string> ProgramPath(const DeviceContext *context, wire::Bytes packet)
{
    const std::string name = RequestName(RequestData(packet));
    if (context->programDir == nullptr)
        return std::nullopt;
    if (IsSafeName(name))
        return context->programDir + name;
    Diag(kUnit, __func__, __LINE__, "%s: %s", kUnsafeNameText, PrintableName(name).c_str());
    return std::nullopt;
}

wire::RemoteNamePacket NamedReply(wire::Bytes packet, std::size_t size, wire::RemoteReply reply)
{
    wire::RemoteNamePacket named{};
    named.header = ReplyHeader(size - sizeof(wire::RemoteHeader), reply);
    const std::string name = RequestName(RequestData(packet));
    std::memcpy(named.name, name.data(), name.size());
    return named;
}

void CloseReceivedFile(DeviceContext *context)
{
    if (context->file != nullptr)
        std::fclose(std::exchange(context->file, nullptr));
    s_bakFile.reset();
}

void CloseReadTable()
{
    s_readBakFile.reset();
    s_readName.clear();
}

bool CleanProgramBack2(DeviceContext *context, wire::Bytes)
{
    if (context->programDir == nullptr)
        return SendResult(context, __func__, wire::kRemoteCleanReply, wire::kRemoteFailure);
    const std::string command = std::string("rm -r ") + context->programDir + "*";
    Diag(kUnit, __func__, __LINE__, "%s", command.c_str());
    RunShell(command);
    return SendResult(context, __func__, wire::kRemoteCleanReply, wire::kRemoteSuccess);
}

bool GetFileFillTabled(DeviceContext *context, wire::Bytes packet)
{
    const std::string name = RequestName(RequestData(packet));
    std::printf("%s\n", name.c_str());
    if (!ProgramPath(context, packet) || !OpenReadTable(context, name))
        return true;
    std::array<std::byte, sizeof(wire::RemoteNamePacket) + wire::kMaxTablePiece + 1> reply{};
    const std::size_t count = std::fread(reply.data() + sizeof(wire::RemoteNamePacket), 1,
                                         wire::kMaxTablePiece, s_readBakFile.get());
    // QUIRK table-reply-long: the lengths count one byte more than the data, a zero that is sent; the data's
    // own length would be expected.
    const std::size_t size = sizeof(wire::RemoteNamePacket) + count + 1;
    const wire::RemoteNamePacket named = NamedReply(packet, size, wire::kRemoteTableReply);
    std::memcpy(reply.data(), &named, sizeof named);
    if (count == 0)
        CloseReadTable();
    return SendReply(context, __func__, wire::Bytes(reply).first(size));
}

bool CreateFile(DeviceContext *context, wire::Bytes packet)
{
    const bool opened = OpenForReception(context, packet, "wb");
    return SendNameResult(context, __func__, packet, wire::kRemoteOpenReply,
                          opened ? wire::kRemoteSuccess : wire::kRemoteFailure);
}

bool OpenAndSeekFile(DeviceContext *context, wire::Bytes packet)
{
    const bool opened = OpenForReception(context, packet, "ab+");
    return SendNameResult(context, __func__, packet, wire::kRemoteOpenReply,
                          opened ? wire::kRemoteSuccess : wire::kRemoteFailure);
}

bool RecvFileData(DeviceContext *context, wire::Bytes packet)
{
    const std::optional<wire::Bytes> data = ChunkData(packet);
    const bool isStored = data && context->file != nullptr && s_bakFile &&
                          context->uDiskFlag == g_serverStatus.uDiskConnectFlag && StoreChunk(context, *data);
    if (isStored)
        context->crc32 = wire::AdvanceCrc(context->crc32, *data);
    const wire::RemoteChunkReply reply{.header = ReplyHeader(sizeof reply - sizeof(wire::RemoteHeader),
                                                             wire::kRemoteDataReply),
                                       .zero = 0,
                                       .result = isStored ? wire::kRemoteSuccess : wire::kRemoteFailure};
    return SendReply(context, __func__, wire::BytesOf(reply));
}

bool CloseFile(DeviceContext *context, wire::Bytes packet)
{
    const bool hasTable = s_bakFile != nullptr;
    CloseReceivedFile(context);
    if (hasTable)
        RunAndPrint("cmd", "rm " + ShellName(s_bakFilename));
    s_bakFilename.clear();
    return SendNameResult(context, __func__, packet, wire::kRemoteCloseReply, context->crc32);
}

void RemoveProgramFile(const DeviceContext *context, const std::string &name)
{
    RunAndPrint("system", "rm " + ShellName(context->programDir + name));
}

bool RemoveProgramFiles(DeviceContext *context, wire::Bytes packet)
{
    wire::Bytes names = RemovalNames(packet);
    while (!names.empty() && context->programDir != nullptr) {
        const auto *const text = reinterpret_cast<const char *>(names.data());
        const std::string name(text, strnlen(text, names.size()));
        names = names.subspan(std::min(names.size(), name.size() + 1));
        if (IsSafeName(name))
            RemoveProgramFile(context, name);
        else
            Diag(kUnit, __func__, __LINE__, "%s: %s", kUnsafeNameText, PrintableName(name).c_str());
    }
    return SendResult(context, __func__, wire::kRemoteRemoveReply, wire::kRemoteSuccess);
}

} // namespace remote
