// SPDX-License-Identifier: MIT
// src/addressing/netlink.h: the kernel's link events; moves the default route between eth0 and the modem as
// the cable comes and goes. Main thread.
#pragma once

#include "base/rtnetlink.h"

int BuildNetlinkSocket();      // non-blocking, close-on-exec; -1 failed (logged)
int ParseNetlinkEvent(int fd); // 1 link up, 0 link down, -1 error or nothing decided
int Eth0IsConnected();         // 0 if "ethtool eth0" prints "Link detected: no", else 1
void ProcEth0Up();             // deletes the default route
void SetPppGatway();           // moves the default route to the peer of ppp0; nothing without ppp0

// Whether a whole RTM_NEWLINK says that the carrier is there (IFF_LOWER_UP); nothing for any other message.
std::optional<bool> LinkIsUp(const NetlinkMessage &message);
