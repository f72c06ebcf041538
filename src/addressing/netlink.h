// SPDX-License-Identifier: MIT
// src/addressing/netlink.h: link events of the kernel, and the default route that follows the cable. Main
// thread.
#pragma once

#include "records/wire_types.h"

int BuildNetlinkSocket();      // non-blocking, close-on-exec; -1 failed (logged)
int ParseNetlinkEvent(int fd); // 1 link up, 0 link down, -1 error or nothing decided
int Eth0IsConnected();         // 0 when "ethtool eth0" says that no link is detected, else 1
void ProcEth0Up();             // the default route leaves eth0
void SetPppGatway();           // the default route goes to the modem's peer

// One message of a route netlink datagram.
struct LinkMessage {
    std::uint16_t type = 0;
    std::optional<bool> lowerUp; // of a whole RTM_NEWLINK: IFF_LOWER_UP is set
};

// Takes the first message off `left`. Nothing when no whole message stands there; `left` is then unchanged.
std::optional<LinkMessage> TakeLinkMessage(wire::Bytes *left);
