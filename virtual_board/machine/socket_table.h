// SPDX-License-Identifier: MIT
// virtual_board/machine/socket_table.h: the IPv4 sockets of a network namespace, as its kernel lists them.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <vector>

namespace board
{

struct SocketEntry {
    sockaddr_in local; // network byte order
    sockaddr_in peer;
    unsigned state; // TCP_LISTEN, TCP_ESTABLISHED, …
};

// Of the namespace that `process` lives in; `protocol` is "tcp" or "udp". Empty if there is no such process.
std::vector<SocketEntry> ListSockets(pid_t process, const char *protocol);

} // namespace board
