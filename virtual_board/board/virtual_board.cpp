// SPDX-License-Identifier: MIT
#include "board/virtual_board.h"

#include "common/unique_fd.h"
#include "machine/errors.h"
#include "machine/pc_side.h"
#include "records/discovery_records.h"
#include "records/session_records.h"

#include <fmt/core.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace board
{

using ledboard::UniqueFd;

namespace fs = std::filesystem;

static constexpr char kSerialName[] = "ttyO0";
static constexpr char kModemName[] = "ttyUSB3";
static constexpr Milliseconds kNetworkLimit{10000};
static constexpr Milliseconds kDaemonLimit{20000}; // under an emulator or a sanitizer it takes its time
static constexpr Milliseconds kLoginLimit{20000};
static constexpr Milliseconds kEndLimit{10000};
static constexpr int kLogPipeSize = 1 << 20; // the daemon never waits for its reader

static std::string FromEnvironment(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

Options::Options()
{
    daemon = FromEnvironment("LEDBOARD_DAEMON");
    if (daemon.empty()) {
        const std::string folder = FromEnvironment("LEDBOARD_BIN_DIR");
        daemon = fs::path(folder.empty() ? ProgramFolder() : folder) / "ledboardd";
    }
    daemon = fs::absolute(daemon);
    std::istringstream words(FromEnvironment("LEDBOARD_DAEMON_PREFIX"));
    for (std::string word; words >> word;)
        prefix.push_back(word);
    for (const char *name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const std::string value = FromEnvironment(name); !value.empty())
            environment.push_back(fmt::format("{}={}", name, value));
    }
}

VirtualBoard::VirtualBoard(const Options &options)
    : options_(options), root_(options_), network_(options_.number),
      fpga_(watcher_, fmt::format("{}/line{}", kPcFolder, options_.number)),
      modem_(watcher_, fmt::format("{}/modem{}", kPcFolder, options_.number)),
      supervisor_(watcher_, network_), player_(watcher_, network_),
      tree_(watcher_, [this](BoardEnd end) { Ended(end); }), journal_(root_.Journal())
{
    for (const std::string &word : options_.prefix) {
        if (word.front() == '/' && fs::exists(word) && !root_.Exists(word))
            root_.BindIn(word, word);
    }
    if (options_.addressing == Addressing::Dhcp)
        network_.DhcpServer(true);
    watcher_.AddTick([this] { player_.Tick(); });
    keeper_ = std::thread([this] { KeepAlive(); });
}

VirtualBoard::~VirtualBoard()
{
    Stop();
    {
        const std::lock_guard guard(lock_);
        stopKeeper_ = true;
    }
    ended_.notify_all();
    keeper_.join();
    Stop(); // a reboot that was under way
    watcher_.Stop();
}

void VirtualBoard::Boot()
{
    const std::lock_guard power(power_);
    if (tree_.Running())
        throw std::runtime_error("virtual board: it is running already");
    BootInside();
}

void VirtualBoard::BootInside()
{
    supervisor_.Listen(false);
    player_.Connect(false);
    root_.MountVolatile();
    root_.ConnectLine(kSerialName, options_.serial ? fpga_.SlavePath() : "");
    modem_.Plug(false);
    modem_.Plug(options_.modem);
    root_.ConnectLine(kModemName, options_.modem ? modem_.SlavePath() : "");
    LayFramebuffers(root_, options_.screens);
    tree_.Boot(root_.Folder(), network_.NamespaceDescriptor());
    StartNetwork();
    supervisor_.Listen(options_.supervisor);
    if (options_.startDaemon)
        StartDaemon();
    const std::lock_guard guard(lock_);
    ++boots_;
}

void VirtualBoard::StartNetwork()
{
    const RunResult result =
        Run("sh /etc/virtual-board/network.sh > /var/log/network.log 2>&1", kNetworkLimit);
    if (result.status != 0)
        throw std::runtime_error("virtual board: the network did not come up: " +
                                 root_.Read("/var/log/network.log").value_or(""));
    // The kernel tells of a new carrier a little later; a daemon started before would take it for an event.
    if (network_.CableIn() && !WaitFor([this] { return network_.HasCarrier(); }, kNetworkLimit))
        throw std::runtime_error("virtual board: eth0 has no carrier");
}

void VirtualBoard::Stop()
{
    const std::lock_guard power(power_);
    {
        const std::lock_guard guard(lock_);
        rebootWanted_ = false;
    }
    player_.Connect(false);
    supervisor_.Listen(false);
    tree_.Stop();
}

void VirtualBoard::Reboot()
{
    const std::lock_guard power(power_);
    Stop();
    BootInside();
}

bool VirtualBoard::Running() const
{
    return tree_.Running();
}

unsigned VirtualBoard::Boots() const
{
    const std::lock_guard guard(lock_);
    return boots_;
}

void VirtualBoard::Ended(BoardEnd end)
{
    {
        const std::lock_guard guard(lock_);
        rebootWanted_ = end == BoardEnd::Rebooted;
    }
    ended_.notify_all();
}

// The keeper thread: after a reboot from inside, the board comes up again by itself.
void VirtualBoard::KeepAlive()
{
    for (;;) {
        {
            std::unique_lock guard(lock_);
            ended_.wait(guard, [this] { return rebootWanted_ || stopKeeper_; });
            if (stopKeeper_)
                return;
        }
        const std::lock_guard power(power_);
        {
            const std::lock_guard guard(lock_);
            if (!rebootWanted_)
                continue; // switched off or booted in the meantime
            rebootWanted_ = false;
        }
        try {
            BootInside();
        } catch (const std::exception &error) {
            const std::lock_guard guard(lock_);
            log_ += fmt::format("virtual board: reboot failed: {}\n", error.what());
        }
        watcher_.Notify();
    }
}

std::vector<std::string> VirtualBoard::Environment() const
{
    std::vector<std::string> all = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/home/root", "USER=root"};
    all.insert(all.end(), options_.environment.begin(), options_.environment.end());
    return all;
}

// A daemon that was built anew is taken at its next start; otherwise what lies in the board stays, so that an
// upgrade on the board is not undone.
void VirtualBoard::CopyDaemon()
{
    std::error_code error;
    const auto time = fs::last_write_time(options_.daemon, error);
    if (error)
        throw std::runtime_error("virtual board: no daemon at " + options_.daemon);
    if (time == daemonTime_)
        return;
    root_.CopyIn(options_.daemon, kDaemonPath);
    daemonTime_ = time;
}

int VirtualBoard::OpenLog()
{
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "pipe");
    fcntl(ends[0], F_SETPIPE_SZ, kLogPipeSize);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    {
        const std::lock_guard guard(lock_);
        logPipes_[ends[0]] = UniqueFd(ends[0]);
    }
    watcher_.Add(ends[0], [this, fd = ends[0]] { ReceiveLog(fd); });
    return ends[1];
}

void VirtualBoard::ReceiveLog(int fd)
{
    std::array<char, 65536> bytes;
    const ssize_t got = read(fd, bytes.data(), bytes.size());
    if (got < 0)
        return;
    const std::lock_guard guard(lock_);
    if (got > 0) {
        log_.append(bytes.data(), static_cast<std::size_t>(got));
        return;
    }
    watcher_.Remove(fd);
    logPipes_.erase(fd);
}

void VirtualBoard::LaunchDaemon()
{
    CopyDaemon();
    const UniqueFd log(OpenLog());
    ProcessRequest request;
    request.arguments = options_.prefix;
    request.arguments.emplace_back(kDaemonPath);
    request.arguments.insert(request.arguments.end(), options_.arguments.begin(), options_.arguments.end());
    request.environment = Environment();
    if (!options_.screens.empty()) {
        request.environment.push_back(fmt::format("LD_PRELOAD={}", kShimPath));
        // A sanitizer wants to be loaded first; it need not be for this.
        request.environment.insert(request.environment.begin(), "ASAN_OPTIONS=verify_asan_link_order=0:" +
                                                                    FromEnvironment("ASAN_OPTIONS"));
    }
    request.softFileLimit = options_.softFileLimit;
    request.descriptors[1] = log.Get();
    request.descriptors[2] = log.Get();
    auto daemon = tree_.Start(request);
    const std::lock_guard guard(lock_);
    daemon_ = std::move(daemon);
}

void VirtualBoard::StartDaemon()
{
    const std::lock_guard power(power_);
    if (DaemonRunning())
        throw std::runtime_error("virtual board: the daemon is running already");
    LaunchDaemon();
    if (!WaitFor([this] { return DaemonListens() || !DaemonRunning(); }, kDaemonLimit))
        throw std::runtime_error("virtual board: the daemon does not listen; its log:\n" + LogText());
    player_.Connect(options_.player);
    if (!DaemonRunning())
        WaitForExit(kEndLimit);
    else if (options_.player)
        WaitFor([this] { return player_.LoggedIn() || !DaemonRunning(); }, kLoginLimit);
}

std::shared_ptr<InsideProcess> VirtualBoard::Daemon() const
{
    const std::lock_guard guard(lock_);
    return daemon_;
}

bool VirtualBoard::SignalDaemon(int signal)
{
    const auto daemon = Daemon();
    return daemon && daemon->Signal(signal);
}

bool VirtualBoard::KillDaemon(int signal)
{
    return SignalDaemon(signal) && WaitForExit(kEndLimit);
}

void VirtualBoard::RestartDaemon()
{
    const std::lock_guard power(power_);
    if (DaemonRunning())
        KillDaemon();
    StartDaemon();
}

pid_t VirtualBoard::DaemonPid() const
{
    const auto daemon = Daemon();
    return daemon ? daemon->Pid() : -1;
}

bool VirtualBoard::DaemonRunning() const
{
    const auto daemon = Daemon();
    return daemon && daemon->Running();
}

// Ports as the kernel lists them: local address and port in hexadecimal; 0A is a listening socket.
static bool HasPort(const std::string &table, std::uint16_t port, const char *state)
{
    std::ifstream lines(table);
    const std::string wanted = fmt::format(":{:04X}", port);
    std::string number, local, remote, what;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        if (words >> number >> local >> remote >> what && local.ends_with(wanted) &&
            (*state == '\0' || what == state))
            return true;
    }
    return false;
}

bool VirtualBoard::DaemonListens() const
{
    const pid_t pid = DaemonPid();
    return pid > 0 && HasPort(fmt::format("/proc/{}/net/tcp", pid), wire::kSessionPort, "0A") &&
           HasPort(fmt::format("/proc/{}/net/udp", pid), wire::kDiscoveryPort, "");
}

static int ExitOf(int status)
{
    if (status < 0)
        return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::optional<int> VirtualBoard::DaemonExit() const
{
    const auto daemon = Daemon();
    if (!daemon || !daemon->Ended())
        return std::nullopt;
    return ExitOf(daemon->Status());
}

std::size_t VirtualBoard::OpenDescriptors() const
{
    std::error_code error;
    std::size_t count = 0;
    for (fs::directory_iterator one(fmt::format("/proc/{}/fd", DaemonPid()), error), end;
         !error && one != end; one.increment(error))
        ++count;
    return count;
}

int VirtualBoard::Wait(const InsideProcess &process, Milliseconds limit) const
{
    if (!WaitFor([&] { return process.Ended(); }, limit))
        return -1;
    return ExitOf(process.Status());
}

RunResult VirtualBoard::Run(const std::string &command, Milliseconds limit)
{
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "pipe");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ProcessRequest request;
    request.arguments = {"/usr/bin/busybox", "sh", "-c", command};
    request.environment = Environment();
    request.descriptors[1] = request.descriptors[2] = writer.Get();
    fcntl(reader.Get(), F_SETFL, O_NONBLOCK);
    const auto process = tree_.Start(request);
    writer.Reset();

    RunResult result;
    const auto drain = [&] {
        std::array<char, 65536> bytes;
        for (ssize_t got = 0; (got = read(reader.Get(), bytes.data(), bytes.size())) > 0;)
            result.output.append(bytes.data(), static_cast<std::size_t>(got));
        return process->Ended();
    };
    if (WaitFor(drain, limit))
        result.status = ExitOf(process->Status());
    else
        process->Signal(SIGKILL);
    drain();
    return result;
}

int VirtualBoard::RunForeground(const ProcessRequest &request)
{
    return Wait(*tree_.Start(request), std::chrono::hours(24 * 365));
}

void VirtualBoard::Cable(bool in)
{
    network_.Cable(in);
}

std::optional<std::string> VirtualBoard::Eth0Address() const
{
    ifreq request{};
    std::strcpy(request.ifr_name, "eth0");
    const UniqueFd fd(network_.SocketInBoard(AF_INET, SOCK_DGRAM, 0));
    if (!fd.Valid() || ioctl(fd.Get(), SIOCGIFADDR, &request) != 0)
        return std::nullopt;
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
}

void VirtualBoard::SerialLine(bool connected)
{
    const std::lock_guard power(power_);
    options_.serial = connected;
    if (connected)
        fpga_.Connect();
    else
        fpga_.HangUp();
    if (tree_.Running())
        root_.ConnectLine(kSerialName, connected ? fpga_.SlavePath() : "");
}

void VirtualBoard::ModemPlugged(bool in)
{
    const std::lock_guard power(power_);
    options_.modem = in;
    if (!tree_.Running())
        return;
    if (!in)
        root_.ConnectLine(kModemName, "");
    modem_.Plug(in);
    if (in)
        root_.ConnectLine(kModemName, modem_.SlavePath());
}

void VirtualBoard::UsbDisk(bool in, unsigned mebibytes)
{
    const std::lock_guard power(power_);
    if (in)
        root_.PlugUsbDisk(mebibytes);
    else
        root_.UnplugUsbDisk();
    const std::lock_guard guard(lock_);
    usbIn_ = in;
}

bool VirtualBoard::UsbDiskIn() const
{
    const std::lock_guard guard(lock_);
    return usbIn_;
}

void VirtualBoard::PlayerConnected(bool on)
{
    {
        const std::lock_guard power(power_);
        options_.player = on;
        player_.Connect(on);
    }
    if (on && !WaitFor([this] { return player_.LoggedIn(); }, kLoginLimit))
        throw std::runtime_error("virtual board: the player could not log in");
}

void VirtualBoard::SupervisorListens(bool on)
{
    const std::lock_guard power(power_);
    options_.supervisor = on;
    supervisor_.Listen(on);
}

bool VirtualBoard::SendAsPlayer(std::uint32_t code, std::optional<std::uint32_t> value)
{
    return player_.Send(code, value);
}

} // namespace board
