// SPDX-License-Identifier: MIT
// src/addressing/arp_socket.h: the probe's ARP socket, and the packets that go through it. Main thread.
#pragma once

#include "addressing/link_local_claim.h"
#include "records/arp_record.h"

#include <optional>

int OpenArpSocket();                       // unbound: hears nothing; -1 failed (logged)
bool BindArpSocket(int fd, int interface); // true when it is bound to the interface of that index now
int BoundInterface(int fd);                // index, 0 when it is not bound

// Nothing when the packet is not one of IPv4 on Ethernet, request or reply.
std::optional<ArpNews> DecodeArp(wire::Bytes packet);

// One packet of the socket, nothing when none could be received or it says nothing to us.
std::optional<ArpNews> ReceiveArp(int fd);

// Broadcasts a request for `address`: a probe, or an announcement when we say that it is ours. Host byte
// order. False with errno when it could not be sent.
bool SendArpProbe(int fd, const MacAddress &own, std::uint32_t address);
bool SendArpAnnouncement(int fd, const MacAddress &own, std::uint32_t address);
