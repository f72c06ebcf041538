// SPDX-License-Identifier: MIT
#include "modem/third_generation.h"

#include "base/diag.h"
#include "base/sockets.h"
#include "modem/modem_link.h"
#include "sessions/client_session.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/third_generation.cpp";

// Stores as much of the text as fits before a zero byte, cut between two characters of UTF-8.
template <std::size_t N> void PutText(char (&field)[N], const std::string &text)
{
    constexpr unsigned kContinued = 0x80;
    constexpr unsigned kContinuedMask = 0xC0;
    std::size_t size = std::min(text.size(), N - 1);
    while (size < text.size() && size > 0 &&
           (static_cast<unsigned char>(text[size]) & kContinuedMask) == kContinued)
        --size;
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), size);
}

int Reply(int fd, wire::Bytes bytes)
{
    if (SendBytes(fd, bytes) == static_cast<long>(bytes.size()))
        return 0;
    DiagErrno(kUnit, "DisposePacket", __LINE__, "send modem reply: ");
    return -1;
}

} // namespace

int KThirdGeneration::SendStatus(int fd) const
{
    const ModemStatus status = state_.Status();
    // Looked up for each request, so that a client sees at once when the link has gone.
    const std::array<std::uint8_t, 4> address = PppAddress();
    wire::ModemStatusReply reply{};
    reply.length = sizeof reply;
    reply.command = wire::kModemStatus;
    const bool online = status.state == wire::kModemRegistered && address != std::array<std::uint8_t, 4>{};
    reply.state = online ? wire::kModemOnline : status.state;
    reply.signal = status.signal;
    reply.registration = status.registration;
    reply.technology = status.technology;
    reply.attached = status.attached ? 1 : 0;
    std::copy(address.begin(), address.end(), reply.address);
    PutText(reply.operatorName, status.operatorName);
    PutText(reply.manufacturer, status.manufacturer);
    PutText(reply.model, status.model);
    PutText(reply.imei, status.imei);
    PutText(reply.lastError, status.lastError);
    return Reply(fd, wire::BytesOf(reply));
}

int KThirdGeneration::SendSms(int fd) const
{
    const std::vector<SmsMessage> messages = state_.LastSms();
    std::array<std::byte, sizeof(wire::ModemSmsReply) + wire::kMostModemSms * sizeof(wire::ModemSms)> room{};
    wire::Writer writer(room);
    const std::size_t count = std::min(messages.size(), wire::kMostModemSms);
    const std::size_t length = sizeof(wire::ModemSmsReply) + count * sizeof(wire::ModemSms);
    writer.Put(wire::ModemSmsReply{static_cast<std::uint32_t>(length), wire::kModemSms,
                                   static_cast<std::uint32_t>(count)});
    for (const SmsMessage &message : messages) {
        wire::ModemSms record{};
        record.time = message.time;
        PutText(record.sender, message.sender);
        PutText(record.text, message.text);
        writer.Put(record);
    }
    return Reply(fd, writer.Written());
}

int KThirdGeneration::DisposePacket(SocketSession *session)
{
    const auto request = wire::Read<wire::ModemRequest>(
        wire::BytesAt(session->buff, static_cast<std::size_t>(session->remain)));
    if (!request || request->frame.length < sizeof *request)
        return -1;
    switch (request->command) {
    case wire::kModemStatus:
        return SendStatus(session->fd);
    case wire::kModemSms:
        return SendSms(session->fd);
    default:
        Diag(kUnit, __func__, __LINE__, "modem command %u is not known.",
             static_cast<std::uint32_t>(request->command));
        return -1;
    }
}
