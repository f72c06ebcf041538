// SPDX-License-Identifier: MIT
// tool/discovery/server_settings.h: asks a board about its remote management server by UDP
// (docs/protocols.md, "Discovery").
//
// All requests go to the board's own address: the one that sets the server is obeyed by every board that gets
// it.
#pragma once

#include "discovery/board.h"

#include <chrono>
#include <string>

namespace ledboard
{

struct ServerSettings {
    std::string host; // empty: none is set
    int port = 0;
    std::string user;
};

struct ServerQuery {
    const Board &board;
    const std::string &interfaceName; // of the PC; empty: whichever the routing table says
    std::chrono::milliseconds patience;
};

// Throw VerbError; kTimeout when the board does not answer in time.
ServerSettings AskServer(const ServerQuery &query);
bool AskConnected(const ServerQuery &query);
void SetServer(const ServerQuery &query, const ServerSettings &settings);
void ForgetServer(const ServerQuery &query);

} // namespace ledboard
