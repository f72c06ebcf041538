// SPDX-License-Identifier: MIT
#include "machine/board_network.h"

#include "common/address.h"
#include "common/unique_fd.h"
#include "machine/errors.h"
#include "machine/pc_side.h"

#include <fmt/core.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <net/route.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <fstream>
#include <system_error>
#include <thread>

namespace board
{

using ledboard::UniqueFd;

namespace
{

constexpr std::array<unsigned char, 5> kBoardMac = {0x02, 0x4c, 0x45, 0x44, 0x00};
constexpr std::array<unsigned char, 5> kPcMac = {0x02, 0x50, 0x43, 0x00, 0x00};

// The kernel reports a carrier at once only when the two ends have different numbers; otherwise up to a
// second later.
constexpr int kBoardIndex = 2;
constexpr int kFirstPcIndex = 100;

// One route netlink request: a header, a link record, attributes that may nest.
class LinkRequest
{
public:
    LinkRequest(std::uint16_t type, std::uint16_t flags, int index = 0)
    {
        auto *header = reinterpret_cast<nlmsghdr *>(bytes_.data());
        header->nlmsg_type = type;
        header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
        used_ = NLMSG_LENGTH(0);
        PutLinkRecord(index);
    }
    void Put(std::uint16_t type, const void *data, std::size_t size)
    {
        rtattr attribute{};
        attribute.rta_len = static_cast<std::uint16_t>(RTA_LENGTH(size));
        attribute.rta_type = type;
        std::memcpy(bytes_.data() + used_, &attribute, sizeof attribute);
        if (size > 0)
            std::memcpy(bytes_.data() + used_ + RTA_LENGTH(0), data, size);
        used_ += RTA_ALIGN(RTA_LENGTH(size));
    }
    void Put(std::uint16_t type, const std::string &text) { Put(type, text.c_str(), text.size() + 1); }
    std::size_t Open(std::uint16_t type)
    {
        const std::size_t at = used_;
        Put(type, nullptr, 0);
        return at;
    }
    void Close(std::size_t at)
    {
        const auto length = static_cast<std::uint16_t>(used_ - at);
        std::memcpy(bytes_.data() + at, &length, sizeof length);
    }
    void PutLinkRecord(int index)
    {
        ifinfomsg record{};
        record.ifi_index = index;
        std::memcpy(bytes_.data() + used_, &record, sizeof record);
        used_ += sizeof record;
    }
    void Send(const std::string &what)
    {
        const auto length = static_cast<std::uint32_t>(used_);
        std::memcpy(bytes_.data(), &length, sizeof length);
        const UniqueFd netlink(Checked(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE), what));
        Checked(static_cast<int>(send(netlink.Get(), bytes_.data(), used_, 0)), what);
        alignas(nlmsghdr) std::array<char, 1024> reply;
        Checked(static_cast<int>(recv(netlink.Get(), reply.data(), reply.size(), 0)), what);
        int error = 0;
        std::memcpy(&error, NLMSG_DATA(reply.data()), sizeof error);
        errno = -error;
        Checked(error, what);
    }

private:
    alignas(nlmsghdr) std::array<char, 1024> bytes_{};
    std::size_t used_ = 0;
};

template <std::size_t Size>
std::array<unsigned char, 6> Mac(const std::array<unsigned char, Size> &start, unsigned number)
{
    std::array<unsigned char, 6> mac{};
    std::copy(start.begin(), start.end(), mac.begin());
    mac[5] = static_cast<unsigned char>(number);
    return mac;
}

void QuietIpv6()
{
    for (const char *which : {"all", "default"})
        std::ofstream(fmt::format("/proc/sys/net/ipv6/conf/{}/disable_ipv6", which)) << "1\n";
}

ifreq RequestFor(const std::string &interface)
{
    ifreq request{};
    interface.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

void SetAddress(const std::string &interface, unsigned long what, const std::string &address)
{
    const UniqueFd fd(Checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"));
    ifreq request = RequestFor(interface);
    auto *value = reinterpret_cast<sockaddr_in *>(&request.ifr_addr);
    value->sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &value->sin_addr);
    Checked(ioctl(fd.Get(), what, &request), "address of " + interface);
}

void SetUp(const std::string &interface, bool up)
{
    const UniqueFd fd(Checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"));
    ifreq request = RequestFor(interface);
    Checked(ioctl(fd.Get(), SIOCGIFFLAGS, &request), "flags of " + interface);
    const int flags = up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP;
    request.ifr_flags = static_cast<short>(flags);
    Checked(ioctl(fd.Get(), SIOCSIFFLAGS, &request), "flags of " + interface);
}

} // namespace

BoardNetwork::BoardNetwork(unsigned number, bool dhcpServer)
    : number_(number), interface_(fmt::format("pc{}", number)), network_(fmt::format("10.20.{}", 30 + number))
{
    std::thread([this] {
        if (unshare(CLONE_NEWNET) == 0) {
            space_ = UniqueFd(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
            QuietIpv6();
        }
    }).join();
    if (!space_.Valid())
        ThrowErrno("network name space");
    QuietIpv6();
    CreatePair();
    SetAddress(interface_, SIOCSIFADDR, PcAddress());
    SetAddress(interface_, SIOCSIFNETMASK, "255.255.255.0");
    SetUp(interface_, true);
    AddDefaultRoute();
    DhcpServer(dhcpServer);
}

BoardNetwork::~BoardNetwork()
{
    DhcpServer(false);
    try {
        LinkRequest request(RTM_DELLINK, 0);
        request.Put(IFLA_IFNAME, interface_);
        request.Send("remove " + interface_);
    } catch (const std::system_error &) {
        // gone with its name space
    }
}

void BoardNetwork::CreatePair()
{
    const auto pcMac = Mac(kPcMac, number_);
    const auto boardMac = Mac(kBoardMac, number_);
    const int space = space_.Get();
    LinkRequest request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, kFirstPcIndex + static_cast<int>(number_));
    request.Put(IFLA_IFNAME, interface_);
    request.Put(IFLA_ADDRESS, pcMac.data(), pcMac.size());
    const std::size_t info = request.Open(IFLA_LINKINFO);
    request.Put(IFLA_INFO_KIND, "veth");
    const std::size_t data = request.Open(IFLA_INFO_DATA);
    const std::size_t peer = request.Open(VETH_INFO_PEER);
    request.PutLinkRecord(kBoardIndex);
    request.Put(IFLA_IFNAME, "eth0");
    request.Put(IFLA_ADDRESS, boardMac.data(), boardMac.size());
    request.Put(IFLA_NET_NS_FD, &space, sizeof space);
    request.Close(peer);
    request.Close(data);
    request.Close(info);
    request.Send("make the cable");
}

// Broadcasts to 255.255.255.255 need a route; the first board's cable gets it.
void BoardNetwork::AddDefaultRoute() const
{
    const UniqueFd fd(Checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket"));
    std::string device = interface_;
    rtentry route{};
    for (sockaddr *address : {&route.rt_dst, &route.rt_genmask, &route.rt_gateway})
        address->sa_family = AF_INET;
    route.rt_dev = device.data();
    route.rt_flags = RTF_UP;
    route.rt_metric = static_cast<short>(number_ + 1);
    if (ioctl(fd.Get(), SIOCADDRT, &route) != 0 && errno != EEXIST)
        ThrowErrno("default route");
}

void BoardNetwork::Cable(bool in)
{
    SetUp(interface_, in);
    if (in)
        AddDefaultRoute();
    cableIn_ = in;
}

bool BoardNetwork::HasCarrier() const
{
    const UniqueFd fd = Socket(AF_INET, SOCK_DGRAM);
    ifreq request = RequestFor("eth0");
    return fd.Valid() && ioctl(fd.Get(), SIOCGIFFLAGS, &request) == 0 &&
           (request.ifr_flags & IFF_RUNNING) != 0;
}

std::optional<std::string> BoardNetwork::Eth0Address() const
{
    const UniqueFd fd = Socket(AF_INET, SOCK_DGRAM);
    ifreq request = RequestFor("eth0");
    if (!fd.Valid() || ioctl(fd.Get(), SIOCGIFADDR, &request) != 0)
        return std::nullopt;
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return ledboard::Dotted(address.sin_addr);
}

std::string BoardNetwork::BoardMac() const
{
    const auto mac = Mac(kBoardMac, number_);
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4],
                       mac[5]);
}

void BoardNetwork::DhcpServer(bool on)
{
    const std::lock_guard guard(lock_);
    if (dhcpServer_ > 0) {
        kill(dhcpServer_, SIGKILL);
        waitpid(dhcpServer_, nullptr, 0);
        dhcpServer_ = -1;
    }
    const std::string base = fmt::format("{}/dhcp{}", kPcFolder, number_);
    for (const char *ending : {".leases", ".conf", ".pid"})
        unlink((base + ending).c_str());
    if (on)
        StartDhcpServer(base);
}

void BoardNetwork::StartDhcpServer(const std::string &base)
{
    std::ofstream(base + ".leases").close();
    std::ofstream(base + ".conf") << fmt::format("start {0}.50\nend {0}.60\ninterface {1}\nmax_leases 11\n"
                                                 "lease_file {2}.leases\npidfile {2}.pid\n"
                                                 "static_lease {3} {4}\n"
                                                 "option subnet 255.255.255.0\noption router {0}.1\n"
                                                 "option dns {0}.1\noption lease 600\n",
                                                 network_, interface_, base, BoardMac(), LeaseAddress());
    std::string config = base + ".conf";
    char program[] = "busybox", applet[] = "udhcpd", foreground[] = "-f";
    char *arguments[] = {program, applet, foreground, config.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_RDWR, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_RDWR, 0);
    errno = posix_spawnp(&dhcpServer_, program, &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (errno != 0)
        ThrowErrno("busybox udhcpd");
}

void BoardNetwork::Inside(const std::function<void()> &work) const
{
    std::thread([&] {
        if (setns(space_.Get(), CLONE_NEWNET) == 0)
            work();
    }).join();
}

UniqueFd BoardNetwork::Socket(int domain, int type, int protocol) const
{
    UniqueFd fd;
    int error = EPERM;
    Inside([&] {
        fd.Reset(socket(domain, type | SOCK_CLOEXEC, protocol));
        error = errno;
    });
    errno = error;
    return fd;
}

} // namespace board
