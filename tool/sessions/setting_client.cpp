// SPDX-License-Identifier: MIT
#include "sessions/setting_client.h"

#include "common/pc/verb_error.h"
#include "records/fpga_frame.h"

#include <algorithm>
#include <array>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kBusyPatience{3000};
constexpr std::chrono::milliseconds kBusyPause{50};

} // namespace

SettingClient::SettingClient(const Board &board, const std::string &interfaceName,
                             std::chrono::milliseconds patience, SettingTransport transport)
    : transport_(transport)
{
    if (transport == SettingTransport::kPort) {
        ConnectToPort({BoardAddress(board), wire::kSettingPort}, interfaceName, patience);
        return;
    }
    client_ = std::make_unique<SessionClient>(SessionEndpoint(board), interfaceName, patience);
    client_->LogIn(wire::kSessionSettings);
    keepAlive_ = std::make_unique<KeepAlive>(client_->LocalAddress(),
                                             Endpoint{BoardAddress(board), board.source.port}, interfaceName);
}

void SettingClient::ConnectToPort(const Endpoint &port, const std::string &interfaceName,
                                  std::chrono::milliseconds patience)
{
    const auto deadline = Clock::now() + std::min(kBusyPatience, patience);
    for (;;) {
        client_.reset();
        try {
            client_ = std::make_unique<SessionClient>(port, interfaceName, patience);
            BoardClock(); // fails if the board served another client and closes the port with us in its queue
            return;
        } catch (const VerbError &error) {
            const bool busy = error.Status() == ExitStatus::kRefused ||
                              (error.Status() == ExitStatus::kFailed && client_ != nullptr);
            if (!busy)
                throw;
            if (Clock::now() >= deadline)
                throw VerbError(ExitStatus::kRefused, std::string(error.what()) +
                                                          "; the board serves one setting program at a time");
        }
        WaitFor(-1, 0, Clock::now() + kBusyPause);
    }
}

void SettingClient::SendPacket(wire::SettingPacketType type, wire::Bytes payload)
{
    std::array<std::byte, sizeof(wire::FrameHeader) + wire::kMaxPacketBytes> room;
    wire::Writer writer(room);
    const std::size_t size = sizeof(wire::SettingHeader) + payload.size();
    // In a session each packet has a frame around it; its own length byte does not count itself.
    if (transport_ == SettingTransport::kSession)
        writer.Put(wire::FrameHeader{.length = static_cast<std::uint32_t>(sizeof(wire::FrameHeader) + size),
                                     .unread = 0U});
    writer.Put(wire::SettingHeader{.length = static_cast<std::uint8_t>(size - 1), .type = type});
    writer.PutBytes(payload);
    client_->Send(writer.Written());
}

void SettingClient::Command(wire::SettingCode code, wire::Bytes argument)
{
    std::array<std::byte, wire::kMaxPacketBytes> room;
    wire::Writer writer(room);
    writer.Put(wire::U32(code));
    writer.PutBytes(argument);
    SendPacket(wire::kPacketCommand, writer.Written());
}

void SettingClient::CommandAcknowledged(wire::SettingCode code, wire::Bytes argument)
{
    Command(code, argument);
    if (Receive<wire::SettingCommand>().code != code)
        throw VerbError(ExitStatus::kFailed, "the board's answer is invalid");
}

void SettingClient::Frame(std::uint8_t command, std::uint32_t value)
{
    const wire::FpgaFrame frame = {.head = wire::kFpgaMark,
                                   .command = command,
                                   .value = value,
                                   .tail = wire::kFpgaMark};
    SendPacket(wire::kPacketFrame, wire::BytesOf(frame));
}

void SettingClient::Data(wire::Bytes data)
{
    for (; !data.empty(); data = data.subspan(std::min(data.size(), kMaxSettingData)))
        SendPacket(wire::kPacketData, data.first(std::min(data.size(), kMaxSettingData)));
}

std::int64_t SettingClient::BoardClock()
{
    Command(wire::kSettingGetClock);
    const auto time = Receive<wire::SettingTime>();
    if (time.command.code != wire::kSettingGetClock)
        throw VerbError(ExitStatus::kFailed, "the board's answer is invalid");
    return time.milliseconds;
}

std::vector<std::byte> SettingClient::End()
{
    Command(wire::kSettingEnd);
    return client_->ReceiveRest();
}

void SettingClient::SendFile(wire::SettingCode code, wire::Bytes file)
{
    try {
        if (TransferFile(code, file))
            return;
    } catch (const VerbError &error) {
        if (error.Status() != ExitStatus::kFailed)
            throw;
        throw VerbError(error.Status(), std::string(error.what()) + " (its disk may be full)");
    }
    throw VerbError(ExitStatus::kFailed, "the board did not store the file");
}

bool SettingClient::TransferFile(wire::SettingCode code, wire::Bytes file)
{
    std::array<std::byte, 1 + kMaxTransferData> room;
    for (; !file.empty(); file = file.subspan(std::min(file.size(), kMaxTransferData))) {
        wire::Writer writer(room);
        writer.Put(static_cast<wire::U8>(wire::kChunkData));
        writer.PutBytes(file.first(std::min(file.size(), kMaxTransferData)));
        Command(code, writer.Written());
    }
    Command(code, wire::BytesOf(static_cast<wire::U8>(wire::kChunkEnd)));
    return Receive<wire::ChunkResult>().status == 1;
}

std::optional<BoardSettings> ReadSettings(SettingClient *client)
{
    client->Command(wire::kSettingReadFile);
    std::vector<std::byte> stream = client->End();
    constexpr std::size_t kSlot = sizeof(wire::SettingRecord);
    // The board sends the brightness, the records of the file and a slot of zeros as the end; without a file
    // only the end.
    const bool ended =
        stream.size() >= kSlot &&
        std::all_of(stream.end() - kSlot, stream.end(), [](std::byte byte) { return byte == std::byte{0}; });
    if (ended && stream.size() == kSlot)
        return std::nullopt;
    const auto brightness = wire::Read<wire::SettingRecord>(stream);
    if (!ended || stream.size() < 2 * kSlot || brightness->id != wire::kIdBrightnessPercent)
        throw VerbError(ExitStatus::kFailed, "the settings file arrived incomplete");
    return BoardSettings{.file = {stream.begin() + kSlot, stream.end() - kSlot},
                         .brightness = brightness->value};
}

} // namespace ledboard
