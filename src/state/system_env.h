// SPDX-License-Identifier: MIT
// src/state/system_env.h: queries of the board's environment. Each reads the system afresh; any thread.
#pragma once

#include <cstdint>

std::int32_t GetPlexaVersionNo(); // four numbers of a dotted quad in byte order; 0 when missing or empty
std::int32_t GetFPGAVersionNo();  // bytes 1 to 3 of the FPGA image, lowest first; 0 when missing or short

std::int32_t GetLocalIPAddress(const char *ifname);      // network byte order; 0 none or 127.0.0.1; -1 query
                                                         // failed
int GetLocalMac(const char *ifname, unsigned char *mac); // 1 six bytes stored, 0 failed (logged)
std::uint32_t GetLocalMask(const char *ifname);          // host byte order, 0 when there is none
int GetDefaultGateway(const char *ifname, char *text);   // 0 dotted text (at most 16 bytes) stored, -1 none
std::uint32_t GetGateway(const char *ifname);            // host byte order, 0 when there is none

int CheckIsFixedIPAddress();     // 1 when the interfaces file gives eth0 a static address, else 0
std::int32_t CheckIsUDiskCard(); // usable room of the USB disk in KiB; 0 without a disk or when it is too
                                 // small
