// SPDX-License-Identifier: MIT
#include "remote/session.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "player/server_witch_plexa.h"
#include "records/player_records.h"
#include "remote/client.h"
#include "remote/device_context.h"
#include "remote/program_list.h"
#include "remote/received_file.h"
#include "state/server_status.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace remote
{

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
std::string s_programDir; // what the context points to
ProgramList s_programs;   // as LogIn found them

void TellPlayer(const char *function, const char *codeName, wire::PlayerCode code)
{
    const wire::PlayerMessage message{.length = sizeof message,
                                      .kind = wire::kPlayerKind,
                                      .code = static_cast<std::uint32_t>(code)};
    SendMessageToPlexa(&message, sizeof message);
    Diag(kUnit, function, __LINE__, "send message to plexa, %s: %d", codeName, static_cast<int>(code));
}

bool AskLockDevice(DeviceContext *context)
{
    Diag(kUnit, __func__, __LINE__, "deviceContext->lockFlag: %d", context->lockFlag);
    wire::RemoteResultReply reply{};
    reply.header = ReplyHeader(sizeof reply - sizeof(wire::RemoteHeader), wire::kRemoteLockReply);
    // QUIRK lock-reply-4: the inner length is 4; the size of the inner packet would be expected.
    reply.header.inner.prefix.length = 4;
    reply.result = context->lockFlag == 0 ? wire::kRemoteSuccess : wire::kRemoteFailure;
    context->lockFlag = 1;
    return SendReply(context, __func__, wire::BytesOf(reply));
}

// The names, each ended by a zero byte, and one more zero byte behind the last; whole names in each packet.
std::vector<std::string> ListingPieces(const std::vector<std::string> &names)
{
    constexpr std::size_t kRoom = wire::kRemoteBufferSize - sizeof(wire::RemoteSessionHeader);
    std::vector<std::string> pieces(1);
    const auto append = [&pieces](const std::string &text) {
        if (text.size() > kRoom)
            return;
        if (pieces.back().size() + text.size() > kRoom)
            pieces.emplace_back();
        pieces.back() += text;
    };
    for (const std::string &name : names)
        append(name + '\0');
    append(std::string(1, '\0'));
    return pieces;
}

bool SendListing(DeviceContext *context, const char *function, const std::vector<std::string> &names,
                 wire::RemoteReply code)
{
    for (const std::string &piece : ListingPieces(names)) {
        const wire::RemoteSessionHeader header = ReplyHeader(sizeof(wire::RemoteHeader) + piece.size(), code);
        std::string reply(reinterpret_cast<const char *>(&header), sizeof header);
        reply += piece;
        if (!SendReply(context, function, wire::BytesAt(reply.data(), reply.size())))
            return false;
    }
    return true;
}

} // namespace

bool LogIn(DeviceContext *context, wire::Bytes)
{
    // QUIRK refused-login-lists: all of this is done before the lock is looked at, also for a user who is
    // then refused; a refusal would be expected to change nothing.
    CloseReadTable();
    context->uDiskFlag = g_serverStatus.uDiskConnectFlag;
    s_programDir = std::string(context->uDiskFlag == 1 ? paths::kUsbProgram : paths::kInternalProgram) + "/";
    context->programDir = s_programDir.c_str();
    context->finishFlag = 0;
    TellPlayer(__func__, "SS_CMD_RECV_PROGRAM", wire::SS_CMD_RECV_PROGRAM);
    s_programs = ListPrograms(s_programDir);
    return AskLockDevice(context);
}

bool UnlockDevice(DeviceContext *context, wire::Bytes)
{
    context->lockFlag = 0;
    Diag(kUnit, __func__, __LINE__, "unlock device");
    CloseReceivedFile(context);
    if (context->finishFlag == 0)
        TellPlayer(__func__, "SS_CMD_RECV_NO_FINISH", wire::SS_CMD_RECV_NO_FINISH);
    return true;
}

bool SendFinish(DeviceContext *context, wire::Bytes packet)
{
    context->finishFlag = 1;
    // QUIRK finish-is-logout: the line names the function LogOut; its own name would be expected.
    TellPlayer("LogOut", "SS_CMD_RECV_END", wire::SS_CMD_RECV_END);
    wire::RemoteNamePacket reply{};
    constexpr std::size_t kOuter = sizeof(wire::RemoteHeader);
    std::memcpy(reinterpret_cast<char *>(&reply) + kOuter, packet.data() + kOuter,
                std::min(packet.size(), sizeof reply) - kOuter);
    const wire::RemoteHeader outer = ReplyHeader(sizeof reply - kOuter, wire::kRemoteFinishReply).outer;
    reply.header.outer = outer;
    return SendReply(context, __func__, wire::BytesOf(reply));
}

bool GetProgramFileListed(DeviceContext *context, wire::Bytes)
{
    return SendListing(context, __func__, s_programs.s_programFileList, wire::kRemoteFilesReply);
}

bool GetVideoFilename(DeviceContext *context, wire::Bytes)
{
    return SendListing(context, __func__, s_programs.s_videoFileList, wire::kRemoteVideosReply);
}

bool RemoveNotVideoFile(DeviceContext *context, wire::Bytes)
{
    if (context->programDir != nullptr) {
        for (const std::string &name : s_programs.s_programFileList) {
            if (!IsVideo(name))
                RemoveProgramFile(context, name);
        }
        RemoveEmptyFolders(s_programDir);
    }
    const wire::RemoteSessionHeader reply =
        ReplyHeader(sizeof(wire::RemoteHeader), wire::kRemoteNotVideoReply);
    return SendReply(context, __func__, wire::BytesOf(reply));
}

} // namespace remote
