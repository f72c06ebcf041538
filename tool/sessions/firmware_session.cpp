// SPDX-License-Identifier: MIT
#include "sessions/firmware_session.h"

#include "common/pc/verb_error.h"

#include <array>
#include <cstring>
#include <vector>

namespace ledboard
{

namespace
{

SessionClient Opened(const Board &board, const std::string &interfaceName, std::chrono::milliseconds patience)
{
    SessionClient client(SessionEndpoint(board), interfaceName, patience);
    client.LogIn(wire::kSessionFirmware);
    return client;
}

} // namespace

FirmwareSession::FirmwareSession(const Board &board, const std::string &interfaceName,
                                 std::chrono::milliseconds patience)
    : client_(Opened(board, interfaceName, patience)),
      keepAlive_(client_.LocalAddress(), {BoardAddress(board), board.source.port}, interfaceName)
{
}

void FirmwareSession::Send(wire::FirmwareKind kind, wire::Bytes tail)
{
    const wire::FirmwareHeader header{.magic = wire::kFirmwareMagic,
                                      .length = static_cast<std::uint32_t>(sizeof header + tail.size()),
                                      .kind = kind};
    const wire::FrameHeader frame{.length = static_cast<std::uint32_t>(sizeof frame + header.length),
                                  .unread = 0};
    std::array<std::byte, wire::kSessionBufferSize> room;
    wire::Writer packet(room);
    packet.Put(frame);
    packet.Put(header);
    packet.PutBytes(tail);
    client_.Send(packet.Written());
}

template <wire::Record Request> void FirmwareSession::SendRequest(wire::FirmwareCode code, Request request)
{
    // Send writes the header, so the one in `request` is left out below.
    request.command.code = code;
    Send(wire::kFirmwareCommand, wire::BytesOf(request).subspan(sizeof(wire::FirmwareHeader)));
}

template <wire::Record Reply> Reply FirmwareSession::Receive()
{
    Reply reply;
    client_.ReceiveExactly({reinterpret_cast<std::byte *>(&reply), sizeof reply});
    if (reply.header.magic != wire::kFirmwareMagic || reply.header.length != sizeof reply)
        throw VerbError(ExitStatus::kFailed, "the board's answer is not a firmware packet");
    return reply;
}

FirmwareVersions FirmwareSession::AskVersions()
{
    SendRequest(wire::kAskVersionNumber, wire::VersionRequest{});
    const auto reply = Receive<wire::VersionReply>();
    return {reply.plexa, reply.fpga};
}

UpgradeState FirmwareSession::AskState()
{
    // This command has no fields, so it has the minimum length.
    const std::uint8_t code[] = {wire::kAskUpgradeState, 0, 0, 0};
    Send(wire::kFirmwareCommand, wire::BytesOf(code));
    const auto reply = Receive<wire::VersionReply>();
    return {reply.state == 1, {reply.plexa, reply.fpga}};
}

void FirmwareSession::SendArchive(const std::string &archive,
                                  const std::function<void(std::uint64_t)> &advance)
{
    constexpr std::size_t kMaxData =
        wire::kSessionBufferSize - sizeof(wire::FrameHeader) - sizeof(wire::FirmwareHeader);
    wire::FirmwareFileRequest request{};
    request.fileSize = static_cast<std::int32_t>(archive.size());
    SendRequest(wire::kAskRecvNewVersionFile, request);
    if (Receive<wire::FirmwareFileReply>().opened != wire::kArchiveOpened)
        throw VerbError(ExitStatus::kRefused, "the board cannot store an archive");
    const wire::Bytes bytes = wire::BytesAt(archive.data(), archive.size());
    for (std::size_t at = 0; at < bytes.size(); at += kMaxData) {
        const wire::Bytes data = bytes.subspan(at, std::min(kMaxData, bytes.size() - at));
        Send(wire::kFirmwareData, data);
        advance(data.size());
    }
}

bool FirmwareSession::Install(std::chrono::milliseconds patience)
{
    SendRequest(wire::kAskUpgradeComplete, wire::UpgradeCompleteRequest{});
    Receive<wire::UpgradeCompleteReply>();
    client_.SetPatience(patience);
    // A board that has unpacked the archive ends the session without an answer; one that cannot answers.
    try {
        return AskState().succeeded;
    } catch (const VerbError &error) {
        if (error.Status() != ExitStatus::kFailed)
            throw;
        return true;
    }
}

} // namespace ledboard
