// SPDX-License-Identifier: MIT
#include "init_network.h"

#include "diag.h"
#include "sockets.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>

namespace
{

constexpr char kUnit[] = "src/init_network.cpp";

} // namespace

int BuildSnicker(const char *ifname)
{
    UniqueFd fd(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.Valid()) {
        DiagErrno(kUnit, __func__, __LINE__, "probe socket: ");
        return -1;
    }
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ARP);
    address.sll_ifindex = static_cast<int>(if_nametoindex(ifname));
    // Without the interface the socket stays unbound and hears nothing.
    if (address.sll_ifindex != 0 &&
        bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        DiagErrno(kUnit, __func__, __LINE__, "probe bind: ");
        return -1;
    }
    return fd.Release();
}

int DisposeSnickerPacket(int fd)
{
    std::array<std::byte, 64> packet;
    recv(fd, packet.data(), packet.size(), 0);
    return 1;
}

void SetLOAddress() {}

void SetUDPPacketAddress() {}

void DelaySnicker() {}
