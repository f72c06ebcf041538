// SPDX-License-Identifier: MIT
// tool/sessions/session_client.h: one TCP session with a board: connects, logs in to a service, sends and
// receives bytes.
#pragma once

#include "common/unique_fd.h"
#include "discovery/board.h"
#include "records/session_records.h"
#include "terminal/interrupt.h"

#include <chrono>
#include <string>
#include <vector>

namespace ledboard
{

// Where the board takes sessions: on its custom port if it was found there.
Endpoint SessionEndpoint(const Board &board);

// Binds the socket to the interface; an empty name leaves the choice to the routing table. Throws VerbError.
void UseInterface(int socket, const std::string &interfaceName);

// One thread at a time. Every call throws VerbError: kTimeout if the board does nothing for `patience`,
// kFailed if the connection breaks, kInterrupted.
class SessionClient
{
public:
    // Connects, but does not log in; kRefused if the port is closed. `interfaceName` as for UseInterface.
    SessionClient(const Endpoint &board, const std::string &interfaceName,
                  std::chrono::milliseconds patience);

    // kRefused if the board has too many sessions open or is in the middle of an upgrade.
    void LogIn(wire::SessionType service);

    void Send(wire::Bytes bytes);
    void ReceiveExactly(wire::MutableBytes bytes); // fills all of it
    std::vector<std::byte> ReceiveRest();          // until the board closes the session

    void SetPatience(std::chrono::milliseconds patience) { patience_ = patience; }

    in_addr LocalAddress() const;
    const Endpoint &Peer() const { return peer_; }

private:
    void Connect();
    std::size_t ReceiveSome(wire::MutableBytes bytes); // 0: the board has closed the session

    Endpoint peer_;
    std::chrono::milliseconds patience_;
    UniqueFd fd_;
};

} // namespace ledboard
