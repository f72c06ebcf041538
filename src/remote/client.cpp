// SPDX-License-Identifier: MIT
#include "remote/client.h"

#include "base/diag.h"
#include "base/sockets.h"
#include "base/threads.h"
#include "remote/device_context.h"
#include "remote/framing.h"
#include "state/device_record.h"
#include "state/tick.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr int kTicksBetweenHeartbeats = 6;

struct InnerCommand {
    std::uint32_t code;
    const char *function; // that the log names when the answer cannot be sent
    RemoteAnswer (RemoteSession::*handler)(wire::Bytes packet);
};

constexpr std::array<InnerCommand, 14> kInnerCommands = {{
    {wire::kRemoteLock, "AskLockDevice", &RemoteSession::LogIn},
    {wire::kRemoteGetMd5, "GetFileMD5", &RemoteSession::GetFileMD5},
    {wire::kRemoteClean, "CleanProgramBack2", &RemoteSession::CleanProgramBack2},
    {wire::kRemoteListFiles, "GetProgramFileListed", &RemoteSession::GetProgramFileListed},
    {wire::kRemoteGetTable, "GetFileFillTabled", &RemoteSession::GetFileFillTabled},
    {wire::kRemoteCreate, "CreateFile", &RemoteSession::CreateFile},
    {wire::kRemoteClose, "CloseFile", &RemoteSession::CloseFile},
    {wire::kRemoteRemove, "RemoveProgramFiles", &RemoteSession::RemoveProgramFiles},
    {wire::kRemoteUnlock, "UnlockDevice", &RemoteSession::UnlockDevice},
    {wire::kRemoteData, "RecvFileData", &RemoteSession::RecvFileData},
    {wire::kRemoteFinish, "SendFinish", &RemoteSession::SendFinish},
    {wire::kRemoteResume, "OpenAndSeekFile", &RemoteSession::OpenAndSeekFile},
    {wire::kRemoteListVideos, "GetVideoFilename", &RemoteSession::GetVideoFilename},
    {wire::kRemoteRemoveNotVideo, "RemoveNotVideoFile", &RemoteSession::RemoveNotVideoFile},
}};

} // namespace

RemoteClient::RemoteClient(DeviceContext *record) : record_(record), connection_(record), session_(record)
{
    record->bufferIndex = 0;
    record->buffer = buffer_.data();
    record->lockFlag = 0;
    record->uDiskFlag = 0;
    record->programDir = nullptr;
    connection_.SetSocket(-1);
}

RemoteClient::~RemoteClient()
{
    connection_.EndRetries();
    if (retries_.joinable())
        retries_.join();
}

void RemoteClient::StartRetries(void (*retry)())
{
    const SignalsBlocked blocked;
    try {
        retries_ = std::thread([this, retry] {
            while (connection_.WaitForRetry())
                retry();
        });
    } catch (const std::system_error &error) {
        errno = error.code().value();
        DiagErrno(kUnit, "InitDeviceContext", __LINE__, "retry thread: ");
    }
}

void RemoteClient::Disconnect()
{
    session_.ConnectionEnded();
    connection_.Forget();
}

void RemoteClient::SetMonitor(MonitorSession *monitor)
{
    if (monitor == nullptr)
        session_.ConnectionEnded();
    connection_.SetMonitor(monitor);
}

void RemoteClient::DisposePacket()
{
    if (!session_.DigestIsPending()) {
        Receive();
        return;
    }
    RemoteAnswer answer = session_.FinishDigest();
    if (session_.DigestIsPending())
        return;
    connection_.WatchSocket();
    if (SendAnswer("GetFileMD5", std::move(answer)))
        HandleHeld();
}

void RemoteClient::Receive()
{
    const int fd = connection_.Socket();
    if (fd < 0 || record_->buffer == nullptr) {
        LoseConnection();
        return;
    }
    const std::size_t room = wire::kRemoteBufferSize - static_cast<std::size_t>(record_->bufferIndex);
    errno = 0; // the end of the stream does not set it, and the log line below prints it
    const ssize_t count = recv(fd, record_->buffer + record_->bufferIndex, room, MSG_DONTWAIT);
    if (count == -1 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count < 1) {
        LoseConnection();
        return;
    }
    record_->bufferIndex += static_cast<int>(count);
    HandleHeld();
}

// Handles the complete packets that the buffer holds and moves the rest to its start. Stops at a digest that
// is pending, so that answers keep their order: the work loop then watches for the digest in place of the
// socket, and the server's next command waits.
void RemoteClient::HandleHeld()
{
    const auto size = static_cast<std::size_t>(record_->bufferIndex);
    const wire::Bytes held = wire::BytesAt(record_->buffer, size);
    std::size_t handled = 0;
    while (!session_.DigestIsPending()) {
        const RemoteFrame frame = NextRemoteFrame(held.subspan(handled));
        if (frame.result == RemoteFrame::kBroken) {
            DropBroken();
            return;
        }
        if (frame.result == RemoteFrame::kIncomplete)
            break;
        if (!HandlePacket(frame.packet))
            return;
        handled += frame.packet.size();
    }
    if (session_.DigestIsPending())
        connection_.WatchInstead(session_.DigestEvent());
    std::memmove(record_->buffer, record_->buffer + handled, size - handled);
    record_->bufferIndex = static_cast<int>(size - handled);
}

bool RemoteClient::HandlePacket(wire::Bytes packet)
{
    switch (wire::Read<wire::RemotePrefix>(packet)->command) {
    case wire::kRemoteLoginAnswer:
        return HandleLoginAnswer(packet);
    case wire::kRemoteSession:
        return HandleInner(packet);
    default:
        return true;
    }
}

bool RemoteClient::HandleLoginAnswer(wire::Bytes packet)
{
    if (wire::Read<wire::RemoteWord>(packet)->value != 0)
        return true;
    connection_.SetQuickPace(true);
    if (!SendDeviceParam())
        return false;
    // QUIRK heartbeat-doubles: every accepted answer inserts the function again and it then runs more than
    // once a tick; one entry would be expected.
    InsertToTickOrWait(record_->Heartbeat);
    return true;
}

bool RemoteClient::HandleInner(wire::Bytes packet)
{
    const auto inner = wire::Read<wire::RemotePrefix>(packet, sizeof(wire::RemoteHeader));
    for (const InnerCommand &command : kInnerCommands) {
        if (command.code == inner->command)
            return SendAnswer(command.function, (session_.*command.handler)(packet));
    }
    std::printf("type: %d\n", static_cast<int>(inner->command));
    return true;
}

bool RemoteClient::HeartbeatIsDue()
{
    if (++Heartbeat_counts <= kTicksBetweenHeartbeats)
        return false;
    Heartbeat_counts = 0;
    return true;
}

void RemoteClient::SendHeartbeat()
{
    const wire::DeviceInformation now = g_device.Information();
    if (std::memcmp(&now, &s_device_param.answer.info, sizeof now) != 0 && !SendDeviceParam())
        return;
    const wire::RemoteWord heartbeat{.prefix = {.length = sizeof heartbeat,
                                                .command = wire::kRemoteHeartbeat},
                                     .value = 0};
    if (SendToServer(wire::BytesOf(heartbeat)))
        return;
    DiagErrno(kUnit, "Reconnect", __LINE__, "send heartbeat fail: ");
    Reconnect();
}

bool RemoteClient::SendDeviceParam()
{
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
    return SendOrReconnect(__func__, wire::BytesOf(packet));
}

bool RemoteClient::SendAnswer(const char *function, RemoteAnswer answer)
{
    std::string packet = std::move(answer.packet);
    while (!packet.empty()) {
        if (!SendOrReconnect(function, wire::BytesAt(packet.data(), packet.size())))
            return false;
        packet = answer.next ? answer.next() : std::string();
    }
    return true;
}

bool RemoteClient::SendOrReconnect(const char *function, wire::Bytes packet)
{
    if (SendToServer(packet))
        return true;
    DiagErrno(kUnit, function, __LINE__, "send device param fail: ");
    Reconnect();
    return false;
}

bool RemoteClient::SendToServer(wire::Bytes packet) const
{
    const int fd = connection_.Socket();
    return fd >= 0 && SendBytes(fd, packet) == static_cast<long>(packet.size());
}

void RemoteClient::LoseConnection()
{
    DiagErrno(kUnit, "DisposePacket", __LINE__, "disconnect from remote server: ");
    Reconnect();
}

// For a peer that does not speak the protocol: the next connect keeps its distance.
void RemoteClient::DropBroken()
{
    Diag(kUnit, "DisposePacket", __LINE__,
         "the remote server sent a broken packet, the connection is dropped.");
    connection_.SetQuickPace(false);
    Reconnect();
}

void RemoteClient::Reconnect()
{
    session_.ConnectionEnded();
    connection_.Lose();
    record_->LoadConfigFile(record_, g_remoteServerFile);
}
