// SPDX-License-Identifier: MIT
// src/addressing/init_network.h: finds the board an address of its own when no DHCP server gives one: IPv4
// link-local addressing, RFC 3927, on eth0 (docs/protocols.md, "Link-local addressing"). Main thread.
//
// A lease always wins, a fixed address is never touched. The probe's socket is slot 5 of the work loop.
#pragma once

// Opens a raw ARP socket on the interface: non-blocking, close-on-exec. Without the interface the socket
// hears nothing; SetUDPPacketAddress binds it when the interface appears. -1 failed (logged).
int BuildSnicker(const char *ifname);

// Handles one ARP packet. 0 the probe is over (a lease or a fixed address is there), 1 it goes on.
int DisposeSnickerPacket(int fd);

// eth0 has no address at start: brings it up and picks the first candidate.
void SetLOAddress();

// Tick function, always there. In dynamic addressing it keeps address, mask and gateway of the device record
// equal to the interface's and drives the probe's timers.
void SetUDPPacketAddress();

// Tick function, inserted when the link goes down. Waits until the link is back and a lease had its chance,
// starts the probe again and removes itself; of several entries all but the last drop out at their first
// call.
void DelaySnicker();
