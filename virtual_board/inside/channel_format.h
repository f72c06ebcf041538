// SPDX-License-Identifier: MIT
// virtual_board/inside/channel_format.h: what travels between the library outside and the init process inside
// the board.
//
// One message per packet of a SOCK_SEQPACKET pair. A message starts with its kind; numbers are in the
// machine's own order, since both ends run on it.
//   kSpawn   outside to inside: SpawnHeader, then the folder, the arguments and the environment, each text
//            ended by a zero byte; three descriptors travel with it (standard input, output, error).
//   kStarted inside to outside: ProcessReport; a process descriptor travels with it.
//   kFailed  inside to outside: ProcessReport, value is errno.
//   kEnded   inside to outside: ProcessReport, value is the wait status.
#pragma once

#include <cstddef>
#include <cstdint>

namespace inside
{

enum Kind : std::uint32_t { kSpawn = 1, kStarted = 2, kFailed = 3, kEnded = 4 };

struct SpawnHeader {
    std::uint32_t kind;
    std::uint32_t id;            // chosen outside, comes back in every report
    std::uint32_t softFileLimit; // 0: as inherited
    std::uint32_t newSession;    // 1: own session, no terminal
    std::uint32_t arguments;
    std::uint32_t environment;
};

struct ProcessReport {
    std::uint32_t kind;
    std::uint32_t id;
    std::int32_t value;
};

constexpr std::size_t kMaxMessage = 160 * 1024;

// The journal: every shell command line and every stand-in call, in order, one append each.
// Length of the rest (32 bits), kind byte, then the command line, or the arguments with zero bytes between.
constexpr char kJournalPath[] = "/var/lib/virtual-board/journal";
constexpr char kJournalCommand = 'C';
constexpr char kJournalStandIn = 'S';

} // namespace inside
