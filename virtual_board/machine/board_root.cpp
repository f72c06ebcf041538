// SPDX-License-Identifier: MIT
#include "machine/board_root.h"

#include "common/unique_fd.h"
#include "machine/errors.h"
#include "machine/inside_image.h"
#include "machine/mounts.h"
#include "machine/pc_side.h"

#include <fmt/core.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace board
{

using ledboard::UniqueFd;

namespace
{

constexpr char kInsidePath[] = "/usr/lib/virtual-board/inside";

// Folders of which the board has its own: nothing of the host shows through.
constexpr std::array kOwnFolders = {"/home",        "/boot",       "/usr/share/id", "/usr/share/info",
                                    "/etc/network", "/etc/udhcpc", "/etc/ppp",      "/etc/virtual-board"};

constexpr std::array kFolders = {"/home/root",
                                 "/home/root/plexa",
                                 "/home/root/plexa_data",
                                 "/home/root/usb_dev",
                                 "/usr/lib/virtual-board",
                                 "/var/lib/virtual-board",
                                 "/var/log",
                                 "/dev",
                                 "/proc",
                                 "/sys",
                                 "/tmp",
                                 "/run"};

// What the daemon's commands and scripts need, as BusyBox on the board has it.
constexpr std::array kApplets = {"[",        "ash",    "awk",    "basename", "cat",    "chgrp",   "chmod",
                                 "chown",    "cp",     "cut",    "dd",       "df",     "dirname", "du",
                                 "echo",     "egrep",  "env",    "expr",     "false",  "fgrep",   "find",
                                 "free",     "grep",   "gunzip", "gzip",     "head",   "id",      "ifconfig",
                                 "ifdown",   "ifup",   "kill",   "killall",  "ln",     "ls",      "md5sum",
                                 "mkdir",    "mkfifo", "mktemp", "mount",    "mv",     "nc",      "netstat",
                                 "nslookup", "od",     "pidof",  "ping",     "printf", "ps",      "pwd",
                                 "readlink", "rm",     "rmdir",  "route",    "sed",    "seq",     "sleep",
                                 "sort",     "stat",   "tail",   "tar",      "tee",    "telnet",  "test",
                                 "tftp",     "top",    "touch",  "tr",       "true",   "udhcpc",  "udhcpd",
                                 "umount",   "uname",  "uniq",   "uptime",   "vi",     "wc",      "wget",
                                 "which",    "xargs",  "zcat"};

constexpr std::array kStandIns = {"sh", "sync", "date", "hwclock", "pppd", "reboot", "poweroff", "halt"};

constexpr char kFixedStanza[] = "iface eth0 inet static\n"
                                "        address {0}.2\n"
                                "        netmask 255.255.255.0\n"
                                "        network {0}.0\n"
                                "        gateway {0}.1\n";

constexpr char kDhcpStanza[] =
    "iface eth0 inet dhcp\n"
    "        pre-up /bin/grep -v -e \"ip=[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\\.[0-9]\\+\" /proc/cmdline > "
    "/dev/null\n";

// Brings the interfaces up from "/etc/network/interfaces" with the board's own commands.
constexpr char kNetworkScript[] = R"(ip addr flush dev eth0
ip link set eth0 down
ifconfig lo 127.0.0.1 up
method= address= netmask= gateway= stanza=
while read -r word rest; do
    case "$word" in
    iface)
        set -- $rest
        stanza=$1
        [ "$stanza" = eth0 ] && method=$3 ;;
    address|netmask|gateway)
        [ "$stanza" = eth0 ] && eval "$word=\$rest" ;;
    esac
done < /etc/network/interfaces
case "$method" in
static)
    ifconfig eth0 "$address" netmask "${netmask:-255.255.255.0}" up
    [ -n "$gateway" ] && route add default gw "$gateway" ;;
dhcp)
    ifconfig eth0 up
    udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0 & ;;
*)
    ifconfig eth0 up ;;
esac
exit 0
)";

constexpr char kLeaseScript[] = R"(#!/bin/busybox sh
case "$1" in
deconfig)
    ifconfig "$interface" 0.0.0.0 ;;
bound|renew)
    ifconfig "$interface" "$ip" netmask "${subnet:-255.255.255.0}"
    if [ -n "$router" ]; then
        while route del default gw 0.0.0.0 dev "$interface" 2> /dev/null; do :; done
        for gateway in $router; do route add default gw "$gateway" dev "$interface"; done
    fi
    : > /etc/resolv.conf
    for server in $dns; do echo "nameserver $server" >> /etc/resolv.conf; done ;;
esac
exit 0
)";

} // namespace

BoardRoot::BoardRoot(const Options &options)
    : base_(fmt::format("{}/board{}", kPcFolder, options.number)), root_(base_ + "/root"),
      journal_(base_ + "/journal/journal")
{
    try {
        MountOverlay(options);
        Fill(options);
    } catch (...) {
        Unmount(root_);
        Unmount(base_ + "/disk");
        throw;
    }
}

BoardRoot::~BoardRoot()
{
    rootFolder_.Reset();
    Unmount(root_);
    Unmount(base_ + "/disk");
    std::error_code ignored;
    std::filesystem::remove_all(base_, ignored);
}

void BoardRoot::MountOverlay(const Options &options)
{
    namespace fs = std::filesystem;
    for (const char *folder : {"/disk", "/root", "/journal"})
        fs::create_directories(base_ + folder);
    Mount("tmpfs", base_ + "/disk", "tmpfs", 0, fmt::format("mode=755,size={}m", options.rootMebibytes));
    fs::create_directories(base_ + "/disk/upper");
    fs::create_directories(base_ + "/disk/work");
    for (const char *folder : kOwnFolders) {
        const std::string path = base_ + "/disk/upper" + folder;
        fs::create_directories(path);
        Checked(setxattr(path.c_str(), "trusted.overlay.opaque", "y", 1, 0), "opaque folder");
    }
    Mount("overlay", root_, "overlay", 0,
          fmt::format("lowerdir=/,upperdir={0}/disk/upper,workdir={0}/disk/work", base_));
    Mount(nullptr, root_, nullptr, MS_SHARED);
    rootFolder_ = UniqueFd(Checked(open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC), "open the root"));
}

void BoardRoot::Fill(const Options &options)
{
    for (const char *folder : kFolders)
        MakeFolder(folder);
    if (!Exists("/usr/bin/busybox"))
        throw std::runtime_error("virtual board: the board needs BusyBox; install the package busybox");
    std::ofstream(journal_).close();
    Mount((base_ + "/journal").c_str(), root_ + "/var/lib/virtual-board", nullptr, MS_BIND);
    if (options.dataMebibytes != 0)
        Mount("tmpfs", root_ + "/home/root/plexa_data", "tmpfs", 0,
              fmt::format("mode=755,size={}m", options.dataMebibytes));
    AddPrograms();
    AddNetworkFiles(options);
    Write("/etc/virtual-board/cmdline", "console=ttyO1,115200n8 root=/dev/mmcblk0p2 rw\n");
    Write("/etc/hostname", "board\n");
    Write("/etc/hosts", "127.0.0.1 localhost board\n");
    for (const std::string &folder : options.folders)
        MakeFolder(folder);
    for (const auto &[path, content] : options.files)
        Write(path, content);
    for (const std::string &word : options.prefix) {
        if (word.front() == '/' && std::filesystem::exists(word) && !Exists(word))
            BindIn(word, word);
    }
}

void BoardRoot::AddPrograms()
{
    Write(kInsidePath, std::string(InsideImage()), 0755);
    const auto link = [this](const char *name, const char *target) {
        bool found = false;
        for (const char *folder : {"/bin/", "/sbin/", "/usr/bin/", "/usr/sbin/"}) {
            struct stat status = {};
            const std::string path = std::string(folder) + name;
            if (fstatat(rootFolder_.Get(), path.c_str() + 1, &status, AT_SYMLINK_NOFOLLOW) == 0) {
                Link(path, target);
                found = true;
            }
        }
        if (!found)
            Link(std::string("/usr/sbin/") + name, target);
    };
    for (const char *name : kApplets)
        link(name, "/usr/bin/busybox");
    for (const char *name : kStandIns)
        link(name, kInsidePath);
}

void BoardRoot::AddNetworkFiles(const Options &options)
{
    const std::string network = fmt::format("10.20.{}", 30 + options.number);
    std::string stanza = kDhcpStanza;
    if (options.addressing == Addressing::kFixed)
        stanza = fmt::format(kFixedStanza, network);
    else if (options.addressing == Addressing::kNone)
        stanza = "iface eth0 inet manual\n";
    Write("/etc/network/interfaces", "auto lo\niface lo inet loopback\n\nauto eth0\n" + stanza);
    Write("/etc/virtual-board/network.sh", kNetworkScript);
    Write("/etc/udhcpc/default.script", kLeaseScript, 0755);
    Link("/etc/resolv.conf", ""); // the host's may be a link to somewhere else
    Write("/etc/resolv.conf", "nameserver 8.8.8.8\n");
}

void BoardRoot::MountVolatile()
{
    if (volatileMounted_) {
        for (const char *folder : {"/dev", "/tmp", "/run"})
            Unmount(root_ + folder);
    }
    volatileMounted_ = true;
    Mount("tmpfs", root_ + "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    Mount("tmpfs", root_ + "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755");
    const std::string dev = root_ + "/dev";
    Mount("tmpfs", dev, "tmpfs", MS_NOSUID, "mode=755");
    struct Node {
        const char *name;
        unsigned major, minor;
    };
    for (const Node &node : {Node{"null", 1, 3}, Node{"zero", 1, 5}, Node{"full", 1, 7}, Node{"random", 1, 8},
                             Node{"urandom", 1, 9}, Node{"tty", 5, 0}}) {
        const std::string path = fmt::format("{}/{}", dev, node.name);
        Checked(mknod(path.c_str(), S_IFCHR | 0666, makedev(node.major, node.minor)), "device " + path);
        chmod(path.c_str(), 0666);
    }
    for (const char *folder : {"pts", "shm"})
        std::filesystem::create_directory(fmt::format("{}/{}", dev, folder));
    Mount("devpts", dev + "/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620");
    Mount("tmpfs", dev + "/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    std::filesystem::create_symlink("pts/ptmx", dev + "/ptmx");
    std::filesystem::create_symlink("/proc/self/fd", dev + "/fd");
}

int BoardRoot::Open(const std::string &path, int flags, unsigned mode) const
{
    open_how how{};
    how.flags = static_cast<__u64>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = RESOLVE_IN_ROOT;
    return static_cast<int>(syscall(SYS_openat2, rootFolder_.Get(), path.c_str(), &how, sizeof how));
}

std::optional<std::string> BoardRoot::TryRead(const std::string &path) const
{
    const UniqueFd file(Open(path, O_RDONLY | O_NONBLOCK));
    if (!file.Valid())
        return std::nullopt;
    std::string content;
    std::array<char, 65536> piece;
    for (;;) {
        const ssize_t got = read(file.Get(), piece.data(), piece.size());
        if (got <= 0)
            return got < 0 ? std::nullopt : std::optional(content);
        content.append(piece.data(), static_cast<std::size_t>(got));
    }
}

std::string BoardRoot::Read(const std::string &path) const
{
    auto content = TryRead(path);
    if (!content)
        ThrowErrno("read " + path);
    return std::move(*content);
}

void BoardRoot::Write(const std::string &path, const std::string &content, unsigned mode)
{
    MakeFolder(std::filesystem::path(path).parent_path());
    const UniqueFd file(Checked(Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode), "write " + path));
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t now =
            Checked(static_cast<int>(write(file.Get(), content.data() + written,
                                           std::min<std::size_t>(content.size() - written, 1 << 30))),
                    "write " + path);
        written += static_cast<std::size_t>(now);
    }
}

bool BoardRoot::Exists(const std::string &path) const
{
    return UniqueFd(Open(path, O_PATH)).Valid();
}

void BoardRoot::MakeFolder(const std::string &path)
{
    std::string sofar;
    for (const auto &part : std::filesystem::path(path).relative_path()) {
        const std::string parent = sofar.empty() ? "/" : sofar;
        sofar += "/" + part.string();
        if (part.empty() || Exists(sofar))
            continue;
        const UniqueFd folder(Checked(Open(parent, O_PATH | O_DIRECTORY), "open " + parent));
        if (mkdirat(folder.Get(), part.c_str(), 0755) != 0 && errno != EEXIST)
            ThrowErrno("make folder " + sofar);
    }
}

// An empty target only removes.
void BoardRoot::Link(const std::string &path, const std::string &target)
{
    const std::filesystem::path whole(path);
    const UniqueFd folder(Checked(Open(whole.parent_path(), O_PATH | O_DIRECTORY), "open folder of " + path));
    unlinkat(folder.Get(), whole.filename().c_str(), 0);
    if (!target.empty())
        Checked(symlinkat(target.c_str(), folder.Get(), whole.filename().c_str()), "link " + path);
}

void BoardRoot::CopyIn(const std::string &hostPath, const std::string &path)
{
    const UniqueFd from(open(hostPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!from.Valid())
        ThrowErrno("open " + hostPath);
    MakeFolder(std::filesystem::path(path).parent_path());
    Link(path, ""); // a running program's file must not be written over
    const UniqueFd to(Checked(Open(path, O_WRONLY | O_CREAT | O_TRUNC, 0755), "write " + path));
    std::array<char, 65536> piece;
    ssize_t got = 0;
    while ((got = Checked(static_cast<int>(read(from.Get(), piece.data(), piece.size())),
                          "read " + hostPath)) > 0) {
        if (write(to.Get(), piece.data(), static_cast<std::size_t>(got)) != got)
            ThrowErrno("write " + path);
    }
}

void BoardRoot::BindIn(const std::string &hostPath, const std::string &path)
{
    if (std::filesystem::is_directory(hostPath)) {
        MakeFolder(path);
    } else if (!Exists(path)) {
        Write(path, "");
    }
    Mount(hostPath.c_str(), root_ + path, nullptr, MS_BIND | MS_REC);
}

void BoardRoot::ConnectLine(const std::string &name, const std::string &slave)
{
    if (!volatileMounted_)
        return;
    const std::string device = root_ + "/dev/" + name;
    Unmount(device);
    unlink(device.c_str());
    if (slave.empty())
        return;
    std::ofstream(device).close();
    Mount(slave.c_str(), device, nullptr, MS_BIND);
}

} // namespace board
