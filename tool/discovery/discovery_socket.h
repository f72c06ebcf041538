// SPDX-License-Identifier: MIT
// tool/discovery/discovery_socket.h: the UDP socket through which boards are asked and through which their
// answers come.
//
// It is bound to 0.0.0.0: boards answer by broadcast more often than not, and a socket bound to one of the
// PC's addresses never gets a broadcast. The interface is therefore chosen per datagram (packet info), which
// also reaches interfaces that no route leads to.
#pragma once

#include "common/unique_fd.h"
#include "discovery/board.h"
#include "discovery/network_interfaces.h"
#include "terminal/interrupt.h"

#include <optional>
#include <string>
#include <vector>

namespace ledboard
{

struct Datagram {
    std::vector<std::byte> bytes;
    Endpoint source;
    unsigned interface; // index of the interface on which it came
};

// One thread at a time.
class DiscoverySocket
{
public:
    // Asks on `interfaceName` only; empty: on every interface.
    explicit DiscoverySocket(const std::string &interfaceName);

    // To 255.255.255.255 on each interface; throws VerbError when no interface took it.
    void Broadcast(wire::Bytes datagram, std::uint16_t port);

    // On one interface; 1 sent, -1 not (errno).
    int BroadcastOn(unsigned interface, wire::Bytes datagram, std::uint16_t port);

    // Through one interface, as if the board hung on it when no route leads there; 1 sent, -1 not (errno).
    int SendOn(unsigned interface, const Endpoint &board, wire::Bytes datagram);

    // Through the routing table, or through the interface given at construction; 1 sent, -1 not (errno).
    int SendTo(const Endpoint &board, wire::Bytes datagram);

    // The next datagram that is there already.
    std::optional<Datagram> Receive();

    // False when none comes before the deadline. Throws when interrupted.
    bool WaitForDatagram(Clock::time_point deadline);

private:
    int Send(const Endpoint &to, unsigned interface, wire::Bytes datagram);

    UniqueFd fd_;
    std::optional<NetworkInterface> only_;
};

} // namespace ledboard
