// SPDX-License-Identifier: MIT
// virtual_board/machine/options.h: how a virtual board is made up before it boots.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace board
{

enum class Addressing {
    kFixed,      // "/etc/network/interfaces" gives eth0 the board's fixed address
    kDhcp,       // eth0 asks by DHCP, and a server on the PC side answers
    kDhcpSilent, // eth0 asks by DHCP, nobody answers
    kNone,       // eth0 is up without an address
};

// The screen behind "/dev/fb0", "/dev/fb1" or "/dev/fb2".
struct ScreenMode {
    unsigned width = 128, height = 128;
    unsigned bitsPerPixel = 32; // 8, 16, 24 or 32
    unsigned padding = 0;       // bytes behind the pixels of a row
    bool bgr = false;           // blue in the high bits
    bool refuses32 = false;     // a switch to 32 bits fails
    bool refuses16 = false;
};

struct Options {
    Options(); // fills daemon, prefix and environment from the caller's environment, see below

    // Program copied into the board as "/usr/bin/ledboardd" and started there in /home/root.
    // Default: $LEDBOARD_DAEMON, else ledboardd in $LEDBOARD_BIN_DIR, else ledboardd beside the running
    // program.
    std::string daemon;
    // Words put in front of it, such as {"qemu-arm-static", "-L", "/…/sysroot"}; absolute paths among them
    // are bound into the board when its root does not have them. Default: $LEDBOARD_DAEMON_PREFIX, split at
    // blanks.
    std::vector<std::string> prefix;
    // "NAME=value" for the daemon, besides PATH and HOME. Default: the options of the sanitizers.
    std::vector<std::string> environment;

    std::map<std::string, std::string> files; // absolute board path and content, laid before the first boot
    std::vector<std::string> folders;         // made before the first boot

    Addressing addressing = Addressing::kFixed;
    unsigned softFileLimit = 0;      // RLIMIT_NOFILE of the daemon; 0: as the caller's
    unsigned number = 0;             // several boards at once: pc<number>, 10.20.<30+number>.0/24
    unsigned rootMebibytes = 512;    // size of the board's own storage; below 700, so it is no USB disk
    unsigned dataMebibytes = 0;      // not 0: /home/root/plexa_data is a file system of this size
    std::vector<ScreenMode> screens; // "/dev/fb0" and on, at most three. Not for a daemon under an emulator.
    bool serial = true;              // false: no "/dev/ttyO0"
    bool modem = false;              // true: a modem on "/dev/ttyUSB3" is plugged in at boot
    bool player = true;              // a player logs in as soon as the daemon listens
    bool supervisor = true;          // somebody listens on 127.0.0.1:6666 inside
    bool startDaemon = true;         // at boot
};

} // namespace board
