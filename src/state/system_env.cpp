// SPDX-License-Identifier: MIT
#include "state/system_env.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "common/unique_fd.h"
#include "records/wire_types.h"
#include "state/usb_monitor.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

namespace
{

constexpr char kUnit[] = "src/system_env.c";

constexpr long long kMinDiskSize = 734003200; // 700 MiB; a smaller disk is not used
constexpr long long kMinRoom = 314572800;     // 300 MiB

ifreq RequestFor(const char *ifname)
{
    ifreq request{};
    std::strncpy(request.ifr_name, ifname, sizeof request.ifr_name - 1);
    return request;
}

std::int32_t RoomInKiB(long long bytes)
{
    constexpr long long kMaxKiB = std::numeric_limits<std::int32_t>::max(); // 2 TiB, which a disk may exceed
    return bytes > kMinRoom ? static_cast<std::int32_t>(std::min(bytes / 1024, kMaxKiB)) : 0;
}

} // namespace

std::int32_t GetPlexaVersionNo()
{
    const auto text = ReadFileStart(paths::kPlexaVersion, 20);
    if (!text || text->empty())
        return 0;
    return static_cast<std::int32_t>(inet_addr(text->c_str()));
}

std::int32_t GetFPGAVersionNo()
{
    const auto bytes = ReadFileStart(paths::kFpgaImage, 8);
    if (!bytes) {
        std::fprintf(stderr, "file is null.\n");
        return 0;
    }
    if (bytes->size() < 8) {
        std::fprintf(stderr, "reads is 0");
        return 0;
    }
    const wire::U8 version[4] = {static_cast<wire::U8>((*bytes)[1]), static_cast<wire::U8>((*bytes)[2]),
                                 static_cast<wire::U8>((*bytes)[3]), 0};
    return *wire::Read<wire::I32>(wire::BytesOf(version));
}

std::int32_t GetLocalIPAddress(const char *ifname)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) == -1)
        return -1;
    in_addr_t address = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET ||
            std::strcmp(entry->ifa_name, ifname) != 0)
            continue;
        address = reinterpret_cast<const sockaddr_in *>(entry->ifa_addr)->sin_addr.s_addr;
        break;
    }
    freeifaddrs(list);
    return address == htonl(INADDR_LOOPBACK) ? 0 : static_cast<std::int32_t>(address);
}

int GetLocalMac(const char *ifname, unsigned char *mac)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        DiagErrno(kUnit, __func__, __LINE__, "get mac address");
        return 0;
    }
    ifreq request = RequestFor(ifname);
    const int result = ioctl(fd, SIOCGIFHWADDR, &request);
    if (result == -1)
        DiagErrno(kUnit, __func__, __LINE__, "ioctl SIOCGIFHWADDR");
    else
        std::memcpy(mac, request.ifr_hwaddr.sa_data, 6);
    // QUIRK mac-socket: the socket is shut down and never closed; a close would be expected.
    shutdown(fd, SHUT_RDWR);
    return result == -1 ? 0 : 1;
}

std::uint32_t GetLocalMask(const char *ifname)
{
    const ledboard::UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.Valid())
        return 0;
    ifreq request = RequestFor(ifname);
    if (ioctl(fd.Get(), SIOCGIFHWADDR, &request) == -1 || ioctl(fd.Get(), SIOCGIFADDR, &request) == -1 ||
        ioctl(fd.Get(), SIOCGIFNETMASK, &request) == -1)
        return 0;
    sockaddr_in mask;
    std::memcpy(&mask, &request.ifr_netmask, sizeof mask);
    return ntohl(mask.sin_addr.s_addr);
}

std::uint32_t GetGateway(const char *ifname)
{
    char text[INET_ADDRSTRLEN] = {};
    if (GetDefaultGateway(ifname, text) == -1)
        return 0;
    return ntohl(inet_addr(text));
}

int CheckIsFixedIPAddress()
{
    const FilePointer file = OpenFile(paths::kInterfaces, "r");
    if (!file)
        return 0;
    constexpr char kFixed[] = "iface eth0 inet static";
    char line[1024];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (std::strncmp(line, kFixed, sizeof kFixed - 1) == 0)
            return 1;
    }
    return 0;
}

std::int32_t CheckIsUDiskCard()
{
    Diag(kUnit, __func__, __LINE__, "%s", "");
    struct statfs disk = {};
    if (statfs(paths::kUsbDisk, &disk) == -1)
        return 0;
    const auto blockSize = static_cast<long long>(disk.f_bsize);
    const long long total = static_cast<long long>(disk.f_blocks) * blockSize;
    std::printf("total size: %lld\n", total);
    if (total < kMinDiskSize)
        return 0;
    const long long free = static_cast<long long>(disk.f_bavail) * blockSize;
    std::printf("free size: %lld\n", free);
    if (!IsFolder(paths::kUsbProgram))
        return RoomInKiB(free);
    const long long program = GetFolderSize(paths::kUsbProgram);
    std::printf("program size: %lld\n", program);
    return RoomInKiB(program + free);
}
