// SPDX-License-Identifier: MIT
#include "sessions/modem_session.h"

#include "common/pc/verb_error.h"

namespace ledboard
{

namespace
{

[[noreturn]] void ThrowInvalid()
{
    throw VerbError(ExitStatus::kFailed, "the board's answer is invalid");
}

} // namespace

ModemSession::ModemSession(const Board &board, const std::string &interfaceName,
                           std::chrono::milliseconds patience)
    : session_(SessionEndpoint(board), interfaceName, patience)
{
    session_.LogIn(wire::kSessionModem);
}

void ModemSession::Ask(wire::ModemCommand command)
{
    wire::ModemRequest request{};
    request.frame.length = static_cast<std::uint32_t>(sizeof request);
    request.command = command;
    session_.Send(wire::BytesOf(request));
}

wire::ModemStatusReply ModemSession::AskStatus()
{
    Ask(wire::kModemStatus);
    wire::ModemStatusReply reply{};
    session_.ReceiveExactly(std::as_writable_bytes(std::span(&reply, 1)));
    if (reply.length != sizeof reply || reply.command != wire::kModemStatus)
        ThrowInvalid();
    return reply;
}

std::vector<wire::ModemSms> ModemSession::AskSms()
{
    Ask(wire::kModemSms);
    wire::ModemSmsReply reply{};
    session_.ReceiveExactly(std::as_writable_bytes(std::span(&reply, 1)));
    if (reply.command != wire::kModemSms || reply.count > wire::kMostModemSms ||
        reply.length != sizeof reply + reply.count * sizeof(wire::ModemSms))
        ThrowInvalid();
    // The count was checked above, so a board cannot make us allocate more.
    std::vector<wire::ModemSms> messages(reply.count);
    session_.ReceiveExactly(std::as_writable_bytes(std::span(messages)));
    return messages;
}

} // namespace ledboard
