// SPDX-License-Identifier: MIT
// The address is set over route netlink and not with SIOCSIFADDR, which replaces the address of the
// interface: a lease that arrived a moment ago would be lost.
#include "addressing/interface_state.h"

#include "base/rtnetlink.h"
#include "common/unique_fd.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr std::uint32_t kLinkLocalNetwork = 0xA9FE0000;
constexpr std::uint32_t kLinkLocalMask = 0xFFFF0000;
constexpr unsigned char kPrefixLength = 16;

struct AddressAttribute {
    rtattr head;
    std::uint32_t address; // network byte order
};

struct AddressRequest {
    ifaddrmsg message;
    AddressAttribute local;
    AddressAttribute address;
    AddressAttribute broadcast;
};

AddressAttribute Attribute(unsigned short type, std::uint32_t address)
{
    return {.head = {.rta_len = sizeof(AddressAttribute), .rta_type = type}, .address = htonl(address)};
}

bool ChangeAddress(std::uint16_t type, std::uint16_t flags, int interface, std::uint32_t address)
{
    AddressRequest request{};
    request.message.ifa_family = AF_INET;
    request.message.ifa_prefixlen = kPrefixLength;
    request.message.ifa_scope = RT_SCOPE_LINK;
    request.message.ifa_index = static_cast<unsigned>(interface);
    request.local = Attribute(IFA_LOCAL, address);
    request.address = Attribute(IFA_ADDRESS, address);
    request.broadcast = Attribute(IFA_BROADCAST, address | ~kLinkLocalMask);
    return RequestRtnetlink(type, flags, wire::BytesAt(&request, sizeof request));
}

void NoteIpv4(const sockaddr *address, InterfaceState *state)
{
    sockaddr_in internet;
    std::memcpy(&internet, address, sizeof internet);
    const std::uint32_t number = ntohl(internet.sin_addr.s_addr);
    if ((number & kLinkLocalMask) != kLinkLocalNetwork)
        state->hasLease |= number != 0 && number != INADDR_LOOPBACK;
    else if (state->linkLocal == 0)
        state->linkLocal = number;
}

void NoteHardware(const sockaddr *address, InterfaceState *state)
{
    sockaddr_ll link;
    std::memcpy(&link, address, sizeof link);
    state->index = link.sll_ifindex;
    if (link.sll_hatype != ARPHRD_ETHER || link.sll_halen != sizeof(MacAddress))
        return;
    MacAddress mac;
    std::copy_n(link.sll_addr, mac.size(), mac.begin());
    state->mac = mac;
}

} // namespace

std::optional<InterfaceState> ReadInterface(const char *ifname)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == -1)
        return std::nullopt;
    InterfaceState state;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (std::strcmp(entry->ifa_name, ifname) != 0)
            continue;
        state.linkUp = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
        if (entry->ifa_addr == nullptr)
            continue;
        if (entry->ifa_addr->sa_family == AF_INET)
            NoteIpv4(entry->ifa_addr, &state);
        else if (entry->ifa_addr->sa_family == AF_PACKET)
            NoteHardware(entry->ifa_addr, &state);
    }
    freeifaddrs(list);
    return state;
}

void BringUp(const char *ifname)
{
    const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    std::strncpy(request.ifr_name, ifname, sizeof request.ifr_name - 1);
    if (!fd.Valid() || ioctl(fd.Get(), SIOCGIFFLAGS, &request) == -1)
        return;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    ioctl(fd.Get(), SIOCSIFFLAGS, &request);
}

bool AddLinkLocal(int interface, std::uint32_t address)
{
    return ChangeAddress(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, interface, address);
}

bool DeleteLinkLocal(int interface, std::uint32_t address)
{
    return ChangeAddress(RTM_DELADDR, 0, interface, address);
}
