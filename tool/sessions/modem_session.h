// SPDX-License-Identifier: MIT
// tool/sessions/modem_session.h: a client of a board's modem service (docs/protocols.md, "Modem").
#pragma once

#include "records/modem_records.h"
#include "sessions/session_client.h"

#include <chrono>
#include <string>
#include <vector>

namespace ledboard
{

// One thread at a time. Every call throws VerbError.
class ModemSession
{
public:
    ModemSession(const Board &board, const std::string &interfaceName, std::chrono::milliseconds patience);

    wire::ModemStatusReply AskStatus();
    std::vector<wire::ModemSms> AskSms(); // oldest first

private:
    void Ask(wire::ModemCommand command);

    SessionClient session_;
};

} // namespace ledboard
