// SPDX-License-Identifier: MIT
// src/discovery/search_services.h: discovery by UDP: searches, status commands, address changes and the
// remote server's address (docs/protocols.md, "Discovery"). Main thread.
#pragma once

// Serve one datagram of port 8878 and of the custom port. What is not a valid request is dropped silently.
int DisposeUdpPacket(int fd);        // 1 answered, 0 dropped or nothing to say, -1 receive failed
int DisposeUdpPacketInFixed(int fd); // likewise; always answers the sender itself

void UpdateBroadcastPacket(); // does nothing
