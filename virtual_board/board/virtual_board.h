// SPDX-License-Identifier: MIT
// virtual_board/board/virtual_board.h: a whole board on this machine, with its own root, network and
// processes, an FPGA, a player and a supervisor around the daemon as it is shipped. The calling process is
// the PC at the other end of the cable; it must have called EnterPcSide (machine/pc_side.h) at the start of
// main.
//
//     board::VirtualBoard board(options);           // the root is made; nothing runs yet
//     board.Root().Write("/usr/share/id/name", "x"); // works before, during and after a run
//     board.Boot();                                 // well under a second; throws if something is missing
//     … plain sockets to board.Network().BoardAddress(), from the PC …
//     ASSERT_TRUE(board.Fpga().WaitForFrame(1, 0)) << board.Record().LogText();
//
// Every function of the board and its parts may be called from any thread. What cannot work throws
// std::runtime_error (std::system_error if the system gave a reason); what may not happen in time returns
// false. No function sleeps: the WaitFor family looks again after every event and gives up at its limit.
//
// The board's shell is BusyBox. Commands that the daemon gives to "/bin/sh -c" run for real and are recorded.
// Only reboot, poweroff, halt, hwclock, date -s and pppd are stand-ins, which record their arguments; sync
// reaches the board's folders only. The stand-in of reboot ends every process of the board and boots it again
// with the same root, as power-on does: "/tmp", "/run" and "/dev" are fresh, eth0 comes up from
// "/etc/network/interfaces", the daemon starts.
#pragma once

#include "board/board_daemon.h"
#include "board/board_record.h"
#include "devices/fpga_line.h"
#include "devices/modem.h"
#include "devices/player.h"
#include "devices/supervisor.h"
#include "devices/usb_disk.h"
#include "machine/board_network.h"
#include "machine/board_root.h"
#include "machine/options.h"
#include "machine/process_tree.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace board
{

class VirtualBoard
{
public:
    explicit VirtualBoard(const Options &options = {});
    ~VirtualBoard(); // everything of the board is gone after it
    VirtualBoard(const VirtualBoard &) = delete;
    VirtualBoard &operator=(const VirtualBoard &) = delete;

    // Returns when the daemon listens (and the player is logged in, if there is one) or has ended by itself.
    // Without startDaemon: when the network is up.
    void Boot();
    void Stop();   // power off: no process is left, the root stays
    void Reboot(); // as a reset button; returns when the board is up again
    bool Running() const { return processes_.Running(); }
    unsigned Boots() const { return boots_; } // 1 after Boot; counts every reboot

    // In BusyBox's shell inside the board; not recorded.
    RunResult Run(const std::string &command, Milliseconds limit = Milliseconds(10000))
    {
        return processes_.Run(command, limit);
    }
    bool WaitFor(const std::function<bool()> &predicate, Milliseconds limit = kDefaultLimit) const
    {
        return watcher_.WaitFor(predicate, limit);
    }
    void Forget(); // empties the record and those of the FPGA line, the player, the modem and the supervisor

    BoardRoot &Root() { return root_; }
    const BoardRoot &Root() const { return root_; }
    BoardNetwork &Network() { return network_; }
    const BoardNetwork &Network() const { return network_; }
    ProcessTree &Processes() { return processes_; }
    const ProcessTree &Processes() const { return processes_; }
    BoardDaemon &Daemon() { return daemon_; }
    const BoardDaemon &Daemon() const { return daemon_; }
    const BoardRecord &Record() const { return record_; }

    // What is connected to the board.
    FpgaLine &Fpga() { return fpga_; }
    const FpgaLine &Fpga() const { return fpga_; }
    board::Modem &Modem() { return modem_; }
    const board::Modem &Modem() const { return modem_; }
    board::UsbDisk &UsbDisk() { return usbDisk_; }
    const board::UsbDisk &UsbDisk() const { return usbDisk_; }
    board::Player &Player() { return player_; }
    const board::Player &Player() const { return player_; }
    board::Supervisor &Supervisor() { return supervisor_; }
    const board::Supervisor &Supervisor() const { return supervisor_; }

private:
    void PowerOn(const PowerLock &power);
    void PowerOff(const PowerLock &power);
    void StartNetwork();
    void Ended(BoardEnd end);
    void KeepAlive();

    const Options options_;
    PowerMutex power_;
    mutable Watcher watcher_;
    BoardRoot root_;
    BoardNetwork network_;
    ProcessTree processes_;
    BoardRecord record_;
    FpgaLine fpga_;
    board::Modem modem_;
    board::UsbDisk usbDisk_;
    board::Supervisor supervisor_;
    board::Player player_;
    BoardDaemon daemon_;
    std::atomic<unsigned> boots_ = 0;

    std::mutex lock_;               // of the three below
    std::condition_variable ended_; // wakes the keeper
    bool rebootWanted_ = false;
    bool stopKeeper_ = false;
    std::thread keeper_;
};

} // namespace board
