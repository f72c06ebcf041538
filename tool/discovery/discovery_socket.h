// SPDX-License-Identifier: MIT
// tool/discovery/discovery_socket.h: the UDP socket for requests to boards and for their answers.
//
// It is bound to 0.0.0.0 because boards usually answer by broadcast, which a socket bound to one of the PC's
// addresses does not receive. So the interface is chosen for each datagram (IP_PKTINFO), which also reaches
// interfaces that no route leads to.
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
    // Uses `interfaceName` only; all interfaces if it is empty. Throws VerbError.
    explicit DiscoverySocket(const std::string &interfaceName);

    // To 255.255.255.255 on each interface. Throws VerbError if it could not be sent on any.
    void Broadcast(wire::Bytes datagram, std::uint16_t port);

    // To 255.255.255.255 on one interface; 1 sent, -1 failed (errno).
    int BroadcastOn(unsigned interface, wire::Bytes datagram, std::uint16_t port);

    // Through one interface, even if no route leads to the board; 1 sent, -1 failed (errno).
    int SendOn(unsigned interface, const Endpoint &board, wire::Bytes datagram);

    // By the routing table, or through the interface given to the constructor; 1 sent, -1 failed (errno).
    int SendTo(const Endpoint &board, wire::Bytes datagram);

    // The next datagram that has arrived, without waiting; nullopt if there is none.
    std::optional<Datagram> Receive();

    // False if no datagram arrives before the deadline. Throws VerbError(kInterrupted).
    bool WaitForDatagram(Clock::time_point deadline);

private:
    int Send(const Endpoint &to, unsigned interface, wire::Bytes datagram);

    UniqueFd fd_;
    std::optional<NetworkInterface> only_;
};

} // namespace ledboard
