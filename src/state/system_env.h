// SPDX-License-Identifier: MIT
// src/state/system_env.h: queries of the board's environment. Each reads the system afresh; any thread.
#pragma once

#include <cstdint>

// The four numbers of the player's dotted version, in byte order. 0 if the file is missing or empty.
std::int32_t GetPlexaVersionNo();

// Bytes 1 to 3 of the FPGA image, lowest first. 0 if it is missing or shorter than 8 bytes.
std::int32_t GetFPGAVersionNo();

// Addresses of an interface. The byte orders differ, as the device record wants them.
std::int32_t GetLocalIPAddress(const char *ifname); // network byte order; 0 none or 127.0.0.1, -1 query
                                                    // failed
std::uint32_t GetLocalMask(const char *ifname);     // host byte order, 0 none
std::uint32_t GetGateway(const char *ifname);       // host byte order, 0 none

// The interface's default route in the main table; of several the one that the kernel lists last. 0 stored as
// dotted text (`text` has room for 16 bytes), -1 none.
int GetDefaultGateway(const char *ifname, char *text);

int GetLocalMac(const char *ifname, unsigned char *mac); // 1 six bytes stored, 0 failed (logged)

int CheckIsFixedIPAddress(); // 1 if the interfaces file gives eth0 a static address, else 0

// Room for programs on the USB disk in KiB: free space, and what the programs there take. 0 without a disk,
// on a disk below 700 MiB and with at most 300 MiB of room.
std::int32_t CheckIsUDiskCard();
