// SPDX-License-Identifier: MIT
// init_network.h — finds the board an address of its own when no DHCP server gives one. Main thread.
#pragma once

int BuildSnicker(const char *ifname); // raw ARP socket (non-blocking, close-on-exec), or -1 (logged)
int DisposeSnickerPacket(int fd);     // handles one ARP packet; 0 the probe is over, 1 it goes on
void SetLOAddress();                  // eth0 has no address at start
void SetUDPPacketAddress();           // tick function
void DelaySnicker();                  // tick function, inserted when the link goes down
