// SPDX-License-Identifier: MIT
// netlink.h — link events of the kernel, and the default route that follows the cable. Main thread.
#pragma once

int BuildNetlinkSocket();      // non-blocking, close-on-exec; -1 failed (logged)
int ParseNetlinkEvent(int fd); // 1 link up, 0 link down, -1 error or nothing decided
int Eth0IsConnected();         // 0 when "ethtool eth0" says that no link is detected, else 1
void ProcEth0Up();             // the default route leaves eth0
void SetPppGatway();           // the default route goes to the modem's peer
