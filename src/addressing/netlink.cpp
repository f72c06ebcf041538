// SPDX-License-Identifier: MIT
#include "addressing/netlink.h"

#include "base/diag.h"
#include "base/shell.h"
#include "common/address.h"
#include "common/unique_fd.h"

#include <linux/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace
{

int need_stop_pppd = 1; // alternates on every move of the default route to the modem

constexpr char kUnit[] = "src/netlink.c";
constexpr std::size_t kReceiveSize = 65536; // holds a burst of link messages
constexpr std::size_t kMaxEthtoolOutput = 65536;

// The result of one message; nothing if it leaves the result as it was.
std::optional<int> HandleLinkMessage(const NetlinkMessage &message)
{
    if (message.header.nlmsg_type != RTM_NEWLINK) { // such as RTM_DELLINK: an interface was removed
        if (Eth0IsConnected() == 0)
            SetPppGatway();
        return std::nullopt;
    }
    const std::optional<bool> up = LinkIsUp(message);
    if (!up)
        return std::nullopt;
    if (!*up) {
        SetPppGatway();
        return 0;
    }
    Diag(kUnit, "ParseNetlinkEvent", __LINE__, "IFF_LOWER_UP");
    if (Eth0IsConnected() == 1) {
        Diag(kUnit, "ParseNetlinkEvent", __LINE__, "Enter ProcEth0Up ---!");
        ProcEth0Up();
    } else {
        SetPppGatway();
    }
    // QUIRK link-up-without-cable: the link counts as up although ethtool reports no cable; down would be
    // expected.
    return 1;
}

} // namespace

std::optional<bool> LinkIsUp(const NetlinkMessage &message)
{
    const auto link = ReadKernelStruct<ifinfomsg>(message.body);
    if (message.header.nlmsg_type != RTM_NEWLINK || !link)
        return std::nullopt;
    return (link->ifi_flags & IFF_LOWER_UP) != 0;
}

int BuildNetlinkSocket()
{
    ledboard::UniqueFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (!fd.Valid()) {
        DiagErrno(kUnit, __func__, __LINE__, "netlink, socket: ");
        return -1;
    }
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<std::uint32_t>(getpid());
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        DiagErrno(kUnit, __func__, __LINE__, "netlink, bind: ");
        return -1;
    }
    return fd.Release();
}

int ParseNetlinkEvent(int fd)
{
    Diag(kUnit, __func__, __LINE__, "parse netlink event.");
    if (fd == -1) {
        DiagErrno(kUnit, __func__, __LINE__, "netlink socket eq -1.");
        return -1;
    }
    std::string buffer(kReceiveSize, '\0');
    const ssize_t count = recv(fd, buffer.data(), buffer.size(), 0);
    if (count < static_cast<ssize_t>(sizeof(nlmsghdr)))
        return -1;
    int result = -1;
    wire::Bytes left = wire::BytesAt(buffer.data(), static_cast<std::size_t>(count));
    while (const auto message = TakeNetlinkMessage(&left)) {
        const std::uint16_t type = message->header.nlmsg_type;
        if (type == NLMSG_DONE || type == NLMSG_ERROR)
            return -1;
        result = HandleLinkMessage(*message).value_or(result);
    }
    return result;
}

int Eth0IsConnected()
{
    // An ethtool that fails or prints nothing counts as connected.
    const std::string output = ReadShell("ethtool eth0", kMaxEthtoolOutput);
    return output.find("Link detected: no") == std::string::npos ? 1 : 0;
}

void ProcEth0Up()
{
    RunShell("route delete default");
}

void SetPppGatway()
{
    Diag(kUnit, __func__, __LINE__, "Enter SetPppGatway ----!");
    const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid()) {
        std::perror("create socket error");
        return;
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "ppp0", sizeof request.ifr_name - 1);
    if (ioctl(fd.Get(), SIOCGIFDSTADDR, &request) == -1) {
        std::perror("SIOCGIFDSTADDR");
        return;
    }
    sockaddr_in peer;
    std::memcpy(&peer, &request.ifr_dstaddr, sizeof peer);
    std::string command = "route delete default;route add  default gw " + ledboard::Dotted(peer.sin_addr) +
                          ";cp /etc/ppp/resolv.conf /var/run/resolv.conf";
    // QUIRK pppd-every-second: the modem's daemon is stopped at every second move of the route; either always
    // or never would be expected.
    if (need_stop_pppd == 1)
        command += ";killall pppd";
    need_stop_pppd = need_stop_pppd == 1 ? 0 : 1;
    std::printf("buf = [%s]\n", command.c_str());
    RunShell(command);
}
