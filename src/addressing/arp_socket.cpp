// SPDX-License-Identifier: MIT
#include "addressing/arp_socket.h"

#include "base/diag.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>

namespace
{

constexpr char kUnit[] = "src/init_network_arp.cpp";

void Put(wire::U8 (&field)[2], std::uint16_t value)
{
    const std::uint16_t network = htons(value);
    std::memcpy(field, &network, sizeof network);
}

void Put(wire::U8 (&field)[4], std::uint32_t value)
{
    const std::uint32_t network = htonl(value);
    std::memcpy(field, &network, sizeof network);
}

std::uint16_t Get(const wire::U8 (&field)[2])
{
    std::uint16_t network;
    std::memcpy(&network, field, sizeof network);
    return ntohs(network);
}

std::uint32_t Get(const wire::U8 (&field)[4])
{
    std::uint32_t network;
    std::memcpy(&network, field, sizeof network);
    return ntohl(network);
}

bool Broadcast(int fd, const MacAddress &own, std::uint32_t sender, std::uint32_t target)
{
    wire::ArpPacket packet{};
    Put(packet.hardwareType, wire::kArpEthernet);
    Put(packet.protocolType, wire::kArpIpv4);
    packet.hardwareSize = sizeof packet.senderHardware;
    packet.protocolSize = sizeof packet.senderProtocol;
    Put(packet.operation, wire::kArpRequest);
    std::memcpy(packet.senderHardware, own.data(), own.size());
    Put(packet.senderProtocol, sender);
    Put(packet.targetProtocol, target);
    sockaddr_ll destination{};
    destination.sll_family = AF_PACKET;
    destination.sll_protocol = htons(ETH_P_ARP);
    destination.sll_ifindex = BoundInterface(fd);
    destination.sll_halen = sizeof packet.senderHardware;
    std::memset(destination.sll_addr, 0xFF, sizeof packet.senderHardware);
    return sendto(fd, &packet, sizeof packet, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&destination),
                  sizeof destination) == sizeof packet;
}

} // namespace

int OpenArpSocket(const char *ifname)
{
    // Protocol 0: with ETH_P_ARP it would hear every interface until it is bound.
    const int fd = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd == -1) {
        DiagErrno(kUnit, __func__, __LINE__, "probe socket: ");
        return -1;
    }
    if (const auto interface = static_cast<int>(if_nametoindex(ifname)); interface != 0)
        BindArpSocket(fd, interface);
    return fd;
}

bool BindArpSocket(int fd, int interface)
{
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ARP);
    address.sll_ifindex = interface;
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

int BoundInterface(int fd)
{
    sockaddr_ll address{};
    socklen_t size = sizeof address;
    // The kernel sets the index to -1 when the interface is removed.
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) == -1 || address.sll_protocol == 0 ||
        address.sll_ifindex < 0)
        return 0;
    return address.sll_ifindex;
}

std::optional<HeardArp> DecodeArp(wire::Bytes bytes)
{
    const auto packet = wire::Read<wire::ArpPacket>(bytes);
    if (!packet || Get(packet->hardwareType) != wire::kArpEthernet ||
        Get(packet->protocolType) != wire::kArpIpv4 ||
        packet->hardwareSize != sizeof packet->senderHardware ||
        packet->protocolSize != sizeof packet->senderProtocol)
        return std::nullopt;
    const std::uint16_t operation = Get(packet->operation);
    if (operation != wire::kArpRequest && operation != wire::kArpReply)
        return std::nullopt;
    HeardArp heard;
    std::memcpy(heard.sender.data(), packet->senderHardware, heard.sender.size());
    heard.senderAddress = Get(packet->senderProtocol);
    heard.targetAddress = Get(packet->targetProtocol);
    heard.isRequest = operation == wire::kArpRequest;
    return heard;
}

std::optional<HeardArp> ReceiveArp(int fd)
{
    std::byte packet[64]; // Ethernet pads the 28 bytes to 46
    const ssize_t count = recv(fd, packet, sizeof packet, 0);
    if (count < 0)
        return std::nullopt;
    return DecodeArp(wire::Bytes(packet).first(static_cast<std::size_t>(count)));
}

bool SendArpProbe(int fd, const MacAddress &own, std::uint32_t address)
{
    return Broadcast(fd, own, 0, address);
}

bool SendArpAnnouncement(int fd, const MacAddress &own, std::uint32_t address)
{
    return Broadcast(fd, own, address, address);
}
