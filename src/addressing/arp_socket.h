// SPDX-License-Identifier: MIT
// src/addressing/arp_socket.h: the ARP socket of the address probe, and its packets. Main thread.
#pragma once

#include "addressing/link_local_claim.h"
#include "records/arp_record.h"

#include <optional>

// A packet socket for ARP on the interface: non-blocking, close-on-exec. Unbound, and thus deaf, if there is
// no such interface. -1 failed (logged).
int OpenArpSocket(const char *ifname);
bool BindArpSocket(int fd, int interface); // to the interface with this index; true if it is bound now
int BoundInterface(int fd);                // index, 0 if it is not bound

// Nothing if the packet is not an ARP request or reply for IPv4 on Ethernet.
std::optional<HeardArp> DecodeArp(wire::Bytes packet);

// Receives one packet. Nothing if none could be received or DecodeArp rejects it.
std::optional<HeardArp> ReceiveArp(int fd);

// Broadcast an ARP request: a probe asks who has `address`, an announcement says that it is ours. Host byte
// order. False with errno if it could not be sent.
bool SendArpProbe(int fd, const MacAddress &own, std::uint32_t address);
bool SendArpAnnouncement(int fd, const MacAddress &own, std::uint32_t address);
