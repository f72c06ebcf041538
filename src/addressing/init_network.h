// SPDX-License-Identifier: MIT
// src/addressing/init_network.h: the address probe as the work loop calls it. The probe gives eth0 a
// link-local address if no DHCP server answers (IPv4 link-local addressing, RFC 3927; docs/protocols.md,
// "Link-local addressing"). Main thread.
//
// A lease always wins, and a fixed address is never changed. The probe's socket is slot 5 of the work loop.
#pragma once

// Opens the ARP socket of the interface: non-blocking, close-on-exec. Without the interface the socket
// receives nothing until SetUDPPacketAddress binds it. -1 failed (logged).
int BuildSnicker(const char *ifname);

// Handles one ARP packet. 1 the probe goes on, 0 it is over: there is a lease or a fixed address.
int DisposeSnickerPacket(int fd);

// eth0 has no address at start: brings it up and, in dynamic addressing, picks the first candidate.
void SetLOAddress();

// Tick function, always in the table. In dynamic addressing it drives the probe and copies address, mask and
// gateway of eth0 to the device record.
void SetUDPPacketAddress();

// Tick function, inserted at every link loss. Waits until the link is back and a lease had its chance, starts
// the probe again and removes itself. While the table holds several entries, each call removes one of them.
void DelaySnicker();
