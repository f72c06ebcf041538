// SPDX-License-Identifier: MIT
#include "remote/client.h"

#include "base/diag.h"
#include "base/sockets.h"
#include "remote/connection.h"
#include "remote/device_context.h"
#include "remote/digest.h"
#include "remote/received_file.h"
#include "remote/session.h"
#include "state/device_record.h"
#include "state/services.h"
#include "state/tick.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr int kTicksBetweenHeartbeats = 6;

wire::RemoteDeviceParam s_device_param; // as it was last sent
int Heartbeat_counts = 0;

struct InnerCommand {
    std::uint32_t code;
    RemoteHandler handler;
};

constexpr std::array<InnerCommand, 14> kInnerCommands = {{
    {wire::kRemoteLock, remote::LogIn},
    {wire::kRemoteGetMd5, remote::GetFileMD5},
    {wire::kRemoteClean, remote::CleanProgramBack2},
    {wire::kRemoteListFiles, remote::GetProgramFileListed},
    {wire::kRemoteGetTable, remote::GetFileFillTabled},
    {wire::kRemoteCreate, remote::CreateFile},
    {wire::kRemoteClose, remote::CloseFile},
    {wire::kRemoteRemove, remote::RemoveProgramFiles},
    {wire::kRemoteUnlock, remote::UnlockDevice},
    {wire::kRemoteData, remote::RecvFileData},
    {wire::kRemoteFinish, remote::SendFinish},
    {wire::kRemoteResume, remote::OpenAndSeekFile},
    {wire::kRemoteListVideos, remote::GetVideoFilename},
    {wire::kRemoteRemoveNotVideo, remote::RemoveNotVideoFile},
}};

bool HandleLoginAnswer(DeviceContext *context, wire::Bytes packet)
{
    if (wire::Read<wire::RemoteWord>(packet)->value != 0)
        return true;
    Connection().SetQuickPace(true);
    if (!SendDeviceParam(context))
        return false;
    // QUIRK heartbeat-doubles: every accepted answer inserts the function again and it then runs more than
    // once a tick; one entry would be expected.
    InsertToTickOrWait(Heartbeat);
    return true;
}

bool HandleInner(DeviceContext *context, wire::Bytes packet)
{
    const auto inner = wire::Read<wire::RemotePrefix>(packet, sizeof(wire::RemoteHeader));
    for (const InnerCommand &command : kInnerCommands) {
        if (command.code == inner->command)
            return command.handler(context, packet);
    }
    std::printf("type: %d\n", static_cast<int>(inner->command));
    return true;
}

bool HandlePacket(DeviceContext *context, wire::Bytes packet)
{
    switch (wire::Read<wire::RemotePrefix>(packet)->command) {
    case wire::kRemoteLoginAnswer:
        return HandleLoginAnswer(context, packet);
    case wire::kRemoteSession:
        return HandleInner(context, packet);
    default:
        return true;
    }
}

void DropBroken(DeviceContext *context)
{
    Diag(kUnit, "DisposePacket", __LINE__,
         "the remote server sent a broken packet, the connection is dropped.");
    DropConnection(context);
}

// Handles the complete packets that the buffer holds and moves the rest to its start. Stops at a digest that
// a worker computes, so that answers keep their order.
void HandleHeld(DeviceContext *context)
{
    const auto size = static_cast<std::size_t>(context->bufferIndex);
    const wire::Bytes held = wire::BytesAt(context->buffer, size);
    std::size_t handled = 0;
    while (!remote::DigestIsPending()) {
        const RemoteFrame frame = NextRemoteFrame(held.subspan(handled));
        if (frame.result == RemoteFrame::kBroken) {
            DropBroken(context);
            return;
        }
        if (frame.result == RemoteFrame::kIncomplete)
            break;
        if (!HandlePacket(context, frame.packet))
            return;
        handled += frame.packet.size();
    }
    std::memmove(context->buffer, context->buffer + handled, size - handled);
    context->bufferIndex = static_cast<int>(size - handled);
}

void LoseConnection(DeviceContext *context)
{
    DiagErrno(kUnit, "DisposePacket", __LINE__, "disconnect from remote server: ");
    Reconnect(context);
}

void Receive(DeviceContext *context)
{
    const int fd = context->GetSocketFD(context);
    if (fd < 0 || context->buffer == nullptr) {
        LoseConnection(context);
        return;
    }
    const std::size_t room = wire::kRemoteBufferSize - static_cast<std::size_t>(context->bufferIndex);
    errno = 0;
    const ssize_t count = recv(fd, context->buffer + context->bufferIndex, room, MSG_DONTWAIT);
    if (count == -1 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count < 1) {
        LoseConnection(context);
        return;
    }
    context->bufferIndex += static_cast<int>(count);
    HandleHeld(context);
}

bool SendToServer(DeviceContext *context, wire::Bytes bytes)
{
    const int fd = context->GetSocketFD(context);
    return fd >= 0 && SendBytes(fd, bytes) == static_cast<long>(bytes.size());
}

} // namespace

void DisposePacket(DeviceContext *context)
{
    if (!remote::DigestIsPending()) {
        Receive(context);
        return;
    }
    if (remote::FinishDigest(context))
        HandleHeld(context);
}

wire::RemoteSessionHeader ReplyHeader(std::size_t innerLength, wire::RemoteReply reply)
{
    wire::RemoteSessionHeader header{};
    header.outer.prefix = {.length = static_cast<std::uint32_t>(sizeof header.outer + innerLength),
                           .command = wire::kRemoteSession};
    header.inner.prefix = {.length = static_cast<std::uint32_t>(innerLength), .command = reply};
    std::memcpy(header.outer.id, g_device.Copy().id, sizeof header.outer.id);
    std::memcpy(header.inner.id, header.outer.id, sizeof header.inner.id);
    return header;
}

bool SendReply(DeviceContext *context, const char *function, wire::Bytes reply)
{
    if (SendToServer(context, reply))
        return true;
    DiagErrno(kUnit, function, __LINE__, "send device param fail: ");
    Reconnect(context);
    return false;
}

bool SendResult(DeviceContext *context, const char *function, wire::RemoteReply reply, std::uint32_t result)
{
    const wire::RemoteResultReply answer{.header = ReplyHeader(sizeof(wire::RemoteResultReply) -
                                                                   sizeof(wire::RemoteHeader),
                                                               reply),
                                         .result = result};
    return SendReply(context, function, wire::BytesOf(answer));
}

bool SendDeviceParam(DeviceContext *context)
{
    if (context == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is null!");
        return false;
    }
    wire::RemoteDeviceParamPacket packet{};
    packet.header.prefix = {.length = sizeof packet, .command = wire::kRemoteDeviceParam};
    // QUIRK search-in-param: the record stands in what a search reply would be, with its length and its
    // command but without its header; the bare record would be expected.
    packet.param.recordLength = sizeof(wire::SearchReply);
    packet.param.answer.command = wire::kAnswerIpAddressCommand;
    packet.param.answer.info = g_device.Information();
    packet.param.answer.address = packet.param.answer.info.record.ipaddr;
    std::memcpy(packet.header.id, packet.param.answer.info.record.id, sizeof packet.header.id);
    s_device_param = packet.param;
    return SendReply(context, __func__, wire::BytesOf(packet));
}

void Heartbeat()
{
    if (++Heartbeat_counts <= kTicksBetweenHeartbeats)
        return;
    Heartbeat_counts = 0;
    DeviceContext *const context = g_deviceContext;
    if (context == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is null!");
        return;
    }
    const wire::DeviceInformation now = g_device.Information();
    if (std::memcmp(&now, &s_device_param.answer.info, sizeof now) != 0 && !SendDeviceParam(context))
        return;
    const wire::RemoteWord heartbeat{.prefix = {.length = sizeof heartbeat,
                                                .command = wire::kRemoteHeartbeat},
                                     .value = 0};
    if (SendToServer(context, wire::BytesOf(heartbeat)))
        return;
    DiagErrno(kUnit, "Reconnect", __LINE__, "send heartbeat fail: ");
    Reconnect(context);
}
