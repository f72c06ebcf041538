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

// The port of the board's sessions: the custom port for a board that was asked on it.
Endpoint SessionEndpoint(const Board &board);

// What leaves by `socket` leaves by that interface; empty: as the routing table says. Throws VerbError.
void UseInterface(int socket, const std::string &interfaceName);

// One thread at a time. Every call throws VerbError: kTimeout when the board does nothing for `patience`,
// kFailed when the connection breaks, kInterrupted.
class SessionClient
{
public:
    // Connects only; kRefused when the port is closed. `interfaceName` empty: whichever the routing table
    // says.
    SessionClient(const Endpoint &board, const std::string &interfaceName,
                  std::chrono::milliseconds patience);

    // kRefused when the board has too many sessions or is in the middle of an upgrade.
    void LogIn(wire::SessionType service);

    void Send(wire::Bytes bytes);
    void ReceiveExactly(wire::MutableBytes bytes); // fills all of it
    std::vector<std::byte> ReceiveRest();          // until the board closes the session

    void SetPatience(std::chrono::milliseconds patience) { patience_ = patience; }

    in_addr LocalAddress() const;
    const Endpoint &Peer() const { return peer_; }

private:
    void Connect();
    std::size_t ReceiveSome(wire::MutableBytes bytes); // 0 when the board has closed the session

    Endpoint peer_;
    std::chrono::milliseconds patience_;
    UniqueFd fd_;
};

} // namespace ledboard
