// SPDX-License-Identifier: MIT
#include "machine/socket_table.h"

#include <fmt/core.h>

#include <fstream>
#include <sstream>

namespace board
{

namespace
{

// "0100007F:22A6": the address as it lies in memory, and the port as a number.
bool TakeAddress(const std::string &text, sockaddr_in &address)
{
    if (text.find(':') != 8)
        return false;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = static_cast<in_addr_t>(std::stoul(text.substr(0, 8), nullptr, 16));
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoul(text.substr(9), nullptr, 16)));
    return true;
}

} // namespace

std::vector<SocketEntry> ListSockets(pid_t process, const char *protocol)
{
    std::vector<SocketEntry> sockets;
    std::ifstream table(fmt::format("/proc/{}/net/{}", process, protocol));
    std::string number, local, peer, state;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        SocketEntry entry{};
        // The line of the titles has no addresses.
        if (!(words >> number >> local >> peer >> state) || !TakeAddress(local, entry.local) ||
            !TakeAddress(peer, entry.peer))
            continue;
        entry.state = static_cast<unsigned>(std::stoul(state, nullptr, 16));
        sockets.push_back(entry);
    }
    return sockets;
}

} // namespace board
