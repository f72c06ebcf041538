// SPDX-License-Identifier: MIT
#include "remote/session.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/safe_name.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "records/player_records.h"
#include "remote/device_context.h"
#include "remote/framing.h"
#include "state/server_status.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr off_t kMaxDirectDigest = 1 << 20; // bytes; a file of this size is read before anybody notices

bool IsLarge(const std::string &path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > kMaxDirectDigest;
}

void NotifyPlayer(const char *function, const char *codeName, wire::PlayerCode code)
{
    SendCodeToPlexa(code);
    Diag(kUnit, function, __LINE__, "send message to plexa, %s: %d", codeName, static_cast<int>(code));
}

RemoteAnswer DigestAnswer(wire::RemoteMd5Reply reply, const std::optional<KMD5::Digest> &digest)
{
    if (digest) {
        const std::string text = DigestText(*digest);
        std::printf("%s\n", text.c_str());
        // QUIRK half-digest: only the first 16 of the text's 32 characters go out; the whole digest would be
        // expected.
        std::memcpy(reply.digest, text.data(), sizeof reply.digest);
    }
    return AnswerWith(reply);
}

} // namespace

RemoteAnswer RemoteSession::LogIn(wire::Bytes)
{
    // QUIRK refused-login-lists: all of this is done before the lock is looked at, also for a user who is
    // then refused; a refusal would be expected to change nothing.
    table_.Close();
    record_->uDiskFlag = g_serverStatus.uDiskConnectFlag;
    programDir_ = std::string(record_->uDiskFlag == 1 ? paths::kUsbProgram : paths::kInternalProgram) + "/";
    record_->programDir = programDir_.c_str();
    record_->finishFlag = 0;
    NotifyPlayer(__func__, "SS_CMD_RECV_PROGRAM", wire::SS_CMD_RECV_PROGRAM);
    programs_ = ListPrograms(programDir_);
    return AskLockDevice();
}

RemoteAnswer RemoteSession::AskLockDevice()
{
    Diag(kUnit, __func__, __LINE__, "deviceContext->lockFlag: %d", record_->lockFlag);
    wire::RemoteResultReply reply{};
    reply.header = ReplyHeader(sizeof reply - sizeof(wire::RemoteHeader), wire::kRemoteLockReply);
    // QUIRK lock-reply-4: the inner length is 4; the size of the inner packet would be expected.
    reply.header.inner.prefix.length = 4;
    reply.result = record_->lockFlag == 0 ? wire::kRemoteSuccess : wire::kRemoteFailure;
    record_->lockFlag = 1;
    return AnswerWith(reply);
}

RemoteAnswer RemoteSession::UnlockDevice(wire::Bytes)
{
    record_->lockFlag = 0;
    Diag(kUnit, __func__, __LINE__, "unlock device");
    received_.Close();
    if (record_->finishFlag == 0)
        NotifyPlayer(__func__, "SS_CMD_RECV_NO_FINISH", wire::SS_CMD_RECV_NO_FINISH);
    return {};
}

RemoteAnswer RemoteSession::SendFinish(wire::Bytes packet)
{
    record_->finishFlag = 1;
    // QUIRK finish-is-logout: the line names the function LogOut; its own name would be expected.
    NotifyPlayer("LogOut", "SS_CMD_RECV_END", wire::SS_CMD_RECV_END);
    // The inner packet is echoed, as far as it goes.
    wire::RemoteNamePacket reply{};
    constexpr std::size_t kOuter = sizeof(wire::RemoteHeader);
    std::memcpy(reinterpret_cast<char *>(&reply) + kOuter, packet.data() + kOuter,
                std::min(packet.size(), sizeof reply) - kOuter);
    reply.header.outer = ReplyHeader(sizeof reply - kOuter, wire::kRemoteFinishReply).outer;
    return AnswerWith(reply);
}

RemoteAnswer RemoteSession::GetProgramFileListed(wire::Bytes)
{
    return ListingAnswer(programs_.s_programFileList, wire::kRemoteFilesReply);
}

RemoteAnswer RemoteSession::GetVideoFilename(wire::Bytes)
{
    return ListingAnswer(programs_.s_videoFileList, wire::kRemoteVideosReply);
}

RemoteAnswer RemoteSession::GetFileMD5(wire::Bytes packet)
{
    wire::RemoteMd5Reply reply{};
    reply.named = NamedReply(packet, sizeof reply, wire::kRemoteMd5Reply);
    const std::optional<std::string> path = ProgramPath(packet);
    if (!path)
        return DigestAnswer(reply, std::nullopt);
    if (IsLarge(*path) && digest_.Start(*path)) {
        pendingReply_ = reply;
        return {};
    }
    return DigestAnswer(reply, DigestOfFile(*path, [] { return false; }));
}

RemoteAnswer RemoteSession::FinishDigest()
{
    std::optional<KMD5::Digest> digest;
    if (!digest_.Take(&digest))
        return {};
    return DigestAnswer(pendingReply_, digest);
}

RemoteAnswer RemoteSession::CreateFile(wire::Bytes packet)
{
    return OpenForReception(packet, "wb");
}

RemoteAnswer RemoteSession::OpenAndSeekFile(wire::Bytes packet)
{
    return OpenForReception(packet, "ab+");
}

RemoteAnswer RemoteSession::OpenForReception(wire::Bytes packet, const char *mode)
{
    received_.Close(); // also when the new name is refused
    const std::optional<std::string> path = ProgramPath(packet);
    const bool opened = path && received_.Open(*path, mode);
    return NameAnswer(packet, wire::kRemoteOpenReply, opened ? wire::kRemoteSuccess : wire::kRemoteFailure);
}

RemoteAnswer RemoteSession::RecvFileData(wire::Bytes packet)
{
    const std::optional<wire::Bytes> data = ChunkData(packet);
    // A transfer to the USB disk stops when the disk goes, one to the internal folder when a disk comes.
    const bool isStored =
        data && record_->uDiskFlag == g_serverStatus.uDiskConnectFlag && received_.Store(*data);
    wire::RemoteChunkReply reply{};
    reply.header = ReplyHeader(sizeof reply - sizeof(wire::RemoteHeader), wire::kRemoteDataReply);
    reply.result = isStored ? wire::kRemoteSuccess : wire::kRemoteFailure;
    return AnswerWith(reply);
}

RemoteAnswer RemoteSession::GetFileFillTabled(wire::Bytes packet)
{
    const std::string name = RequestName(RequestData(packet));
    std::printf("%s\n", name.c_str());
    if (!ProgramPath(packet))
        return {};
    constexpr std::size_t kStart = sizeof(wire::RemoteNamePacket);
    std::string reply(kStart + wire::kMaxTablePiece, '\0');
    const std::optional<std::size_t> count =
        table_.Read(programDir_ + "/" + name + wire::kTableSuffix,
                    std::as_writable_bytes(std::span(reply)).subspan(kStart));
    if (!count)
        return {};
    // QUIRK table-reply-long: the lengths count one byte more than the data, a zero that is sent; the data's
    // own length would be expected.
    reply.resize(kStart + *count);
    reply += '\0';
    const wire::RemoteNamePacket named = NamedReply(packet, reply.size(), wire::kRemoteTableReply);
    std::memcpy(reply.data(), &named, sizeof named);
    return {.packet = std::move(reply), .next = {}};
}

RemoteAnswer RemoteSession::CloseFile(wire::Bytes packet)
{
    received_.Complete();
    return NameAnswer(packet, wire::kRemoteCloseReply, record_->crc32);
}

RemoteAnswer RemoteSession::RemoveProgramFiles(wire::Bytes packet)
{
    wire::Bytes names = RemovalNames(packet);
    while (!names.empty() && record_->programDir != nullptr) {
        const auto *const text = reinterpret_cast<const char *>(names.data());
        const std::string name(text, strnlen(text, names.size()));
        names = names.subspan(std::min(names.size(), name.size() + 1));
        if (IsSafeName(name))
            RemoveProgramFile(name);
        else
            Diag(kUnit, __func__, __LINE__, "%s: %s", kUnsafeNameText, PrintableName(name).c_str());
    }
    return ResultAnswer(wire::kRemoteRemoveReply, wire::kRemoteSuccess);
}

RemoteAnswer RemoteSession::RemoveNotVideoFile(wire::Bytes)
{
    if (record_->programDir != nullptr) {
        for (const std::string &name : programs_.s_programFileList) {
            if (!IsVideo(name))
                RemoveProgramFile(name);
        }
        RemoveEmptyFolders(programDir_);
    }
    return AnswerWith(ReplyHeader(sizeof(wire::RemoteHeader), wire::kRemoteNotVideoReply));
}

RemoteAnswer RemoteSession::CleanProgramBack2(wire::Bytes)
{
    if (record_->programDir == nullptr)
        return ResultAnswer(wire::kRemoteCleanReply, wire::kRemoteFailure);
    const std::string command = "rm -r " + programDir_ + "*";
    Diag(kUnit, __func__, __LINE__, "%s", command.c_str());
    RunShell(command);
    return ResultAnswer(wire::kRemoteCleanReply, wire::kRemoteSuccess);
}

void RemoteSession::ConnectionEnded()
{
    digest_.Abandon();
    table_.Close();
}

std::optional<std::string> RemoteSession::ProgramPath(wire::Bytes packet) const
{
    const std::string name = RequestName(RequestData(packet));
    if (record_->programDir == nullptr)
        return std::nullopt;
    if (IsSafeName(name))
        return programDir_ + name;
    Diag(kUnit, __func__, __LINE__, "%s: %s", kUnsafeNameText, PrintableName(name).c_str());
    return std::nullopt;
}

void RemoteSession::RemoveProgramFile(const std::string &name) const
{
    const std::string command = "rm " + ShellName(programDir_ + name);
    std::printf("system: %s\n", command.c_str());
    RunShell(command);
}
