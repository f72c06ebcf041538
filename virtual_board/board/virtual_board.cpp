// SPDX-License-Identifier: MIT
#include "board/virtual_board.h"

#include "devices/framebuffer.h"
#include "machine/pc_side.h"

#include <fmt/core.h>

#include <stdexcept>

namespace board
{

namespace
{

constexpr Milliseconds kNetworkLimit{10000};

// Of a part of the board on the PC side.
std::string FolderOf(const char *part, const Options &options)
{
    return fmt::format("{}/{}{}", kPcFolder, part, options.number);
}

} // namespace

VirtualBoard::VirtualBoard(const Options &options)
    : options_(options), root_(options_), network_(options_.number, options_.addressing == Addressing::kDhcp),
      processes_(watcher_, options_.environment, [this](BoardEnd end) { Ended(end); }),
      record_(watcher_, root_.Journal()),
      fpga_(watcher_, power_, root_, FolderOf("line", options_), options_.serial),
      modem_(watcher_, power_, root_, FolderOf("modem", options_), options_.modem),
      usbDisk_(power_, root_, FolderOf("usb", options_)),
      supervisor_(watcher_, power_, network_, options_.supervisor),
      player_(watcher_, power_, network_, options_.player),
      daemon_({options_, power_, watcher_, root_, processes_, record_, player_})
{
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
    const PowerLock power(power_);
    if (processes_.Running())
        throw std::runtime_error("virtual board: it is running already");
    PowerOn(power);
}

void VirtualBoard::Stop()
{
    const PowerLock power(power_);
    PowerOff(power);
}

void VirtualBoard::Reboot()
{
    const PowerLock power(power_);
    PowerOff(power);
    PowerOn(power);
}

void VirtualBoard::PowerOn(const PowerLock &power)
{
    // After a reboot from inside they still have their connections.
    supervisor_.PowerOff(power);
    player_.PowerOff(power);
    root_.MountVolatile();
    fpga_.PowerOn(power);
    modem_.PowerOn(power);
    MakeFramebuffers(root_, options_.screens);
    processes_.Boot(root_.Folder(), network_.NamespaceDescriptor());
    StartNetwork();
    supervisor_.PowerOn(power);
    if (options_.startDaemon)
        daemon_.Start(power);
    ++boots_;
}

void VirtualBoard::PowerOff(const PowerLock &power)
{
    {
        const std::lock_guard guard(lock_);
        rebootWanted_ = false;
    }
    player_.PowerOff(power);
    supervisor_.PowerOff(power);
    processes_.Stop();
}

void VirtualBoard::StartNetwork()
{
    const RunResult result =
        Run("sh /etc/virtual-board/network.sh > /var/log/network.log 2>&1", kNetworkLimit);
    if (result.status != 0)
        throw std::runtime_error("virtual board: the network did not come up: " +
                                 root_.TryRead("/var/log/network.log").value_or(""));
    // The kernel reports a new carrier a little later. A daemon that is started before takes it for an event.
    if (network_.CableIn() && !WaitFor([this] { return network_.HasCarrier(); }, kNetworkLimit))
        throw std::runtime_error("virtual board: eth0 has no carrier");
}

// On the watcher's thread.
void VirtualBoard::Ended(BoardEnd end)
{
    {
        const std::lock_guard guard(lock_);
        rebootWanted_ = end == BoardEnd::kRebooted;
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
        const PowerLock power(power_);
        {
            const std::lock_guard guard(lock_);
            if (!rebootWanted_)
                continue; // switched off or booted in the meantime
            rebootWanted_ = false;
        }
        try {
            PowerOn(power);
        } catch (const std::exception &error) {
            record_.Note(fmt::format("virtual board: reboot failed: {}", error.what()));
        }
        watcher_.Notify();
    }
}

void VirtualBoard::Forget()
{
    fpga_.Forget();
    player_.Forget();
    modem_.Forget();
    supervisor_.Forget();
    record_.Forget();
}

} // namespace board
