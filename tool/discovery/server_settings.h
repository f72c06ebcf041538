// SPDX-License-Identifier: MIT
// tool/discovery/server_settings.h: reads and changes a board's management server by UDP (docs/protocols.md,
// "Discovery").
//
// All requests go to the board's own address: every board that receives the one that sets the server obeys
// it.
#pragma once

#include "discovery/board.h"

#include <chrono>
#include <string>

namespace ledboard
{

struct ServerSettings {
    std::string host; // empty: no server is set
    int port = 0;
    std::string user;
};

struct ServerQuery {
    const Board &board;
    const std::string &interfaceName; // of the PC; empty: chosen by the routing table
    std::chrono::milliseconds patience;
};

// Throw VerbError; kTimeout if the board does not answer in time.
ServerSettings AskServer(const ServerQuery &query);
bool AskConnected(const ServerQuery &query);
void SetServer(const ServerQuery &query, const ServerSettings &settings);
void ForgetServer(const ServerQuery &query);

} // namespace ledboard
