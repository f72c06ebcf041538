// SPDX-License-Identifier: MIT
// virtual_board/board/virtual_board.h: a whole board on this machine: its own root, network, process tree,
// FPGA, player and supervisor around the daemon as it is shipped. The calling process is the PC at the other
// end of the cable; it must have called EnterPcSide (pc_side.h) at the start of main.
//
//     board::VirtualBoard board(options);          // the root is laid out; nothing runs yet
//     board.WriteFile("/usr/share/id/name", "x");  // works before, during and after a run
//     board.Boot();                                // well under a second; throws when something is missing
//     … plain sockets to board.Address(), from the PC …
//     ASSERT_TRUE(board.WaitForFrame(1, 0)) << board.LogText();
//
// Every verb may be called from any thread. What cannot work throws std::runtime_error (a std::system_error
// where the system gave a reason); what may not happen in time returns false. Nothing here sleeps: the
// WaitFor family looks after every event and gives up at its limit.
//
// The shell of the board is BusyBox. Commands the daemon gives to "/bin/sh -c" run for real and are recorded;
// only reboot, poweroff, halt, hwclock, date -s and pppd are stand-ins that record their words; sync reaches
// the board's folders only. Of these, reboot ends every process of the board and boots it again with the same
// root, as power-on does: "/tmp",
// "/run" and "/dev" are fresh, eth0 comes up from "/etc/network/interfaces", the daemon starts.
#pragma once

#include "common/unique_fd.h"
#include "devices/fpga_line.h"
#include "devices/framebuffer.h"
#include "devices/modem.h"
#include "devices/player.h"
#include "devices/supervisor.h"
#include "machine/board_network.h"
#include "machine/board_root.h"
#include "machine/inside_process.h"
#include "machine/journal.h"
#include "machine/options.h"

#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace board
{

constexpr Milliseconds kDefaultLimit{20000}; // of the WaitFor family

struct RunResult {
    int status = -1; // exit status; 128 + number after a signal; -1: ran out of time or the board went down
    std::string output; // standard output and standard error
};

class VirtualBoard
{
public:
    explicit VirtualBoard(const Options &options = {});
    ~VirtualBoard(); // everything of the board is gone after it
    VirtualBoard(const VirtualBoard &) = delete;
    VirtualBoard &operator=(const VirtualBoard &) = delete;

    // --- power ---
    // Returns when the daemon listens (and the player is logged in, when there is one) or has ended by
    // itself. Without startDaemon: when the network is up.
    void Boot();
    void Stop();   // power off: no process is left, the root stays
    void Reboot(); // as a reset button; returns when the board is up again
    bool Running() const;
    unsigned Boots() const;                           // 1 after Boot; counts every reboot
    pid_t InitPid() const { return tree_.InitPid(); } // of process 1 inside, as the PC side sees it; -1: off

    // --- the daemon ---
    void StartDaemon();                    // returns when it listens or has ended
    bool KillDaemon(int signal = SIGKILL); // waits for its end when the signal is deadly; false: it did not
                                           // end
    void RestartDaemon();
    bool SignalDaemon(int signal);
    pid_t DaemonPid() const; // as the PC side sees it; -1: none
    bool DaemonRunning() const;
    bool DaemonListens() const;            // UDP 8878 and TCP 8870 are open
    std::optional<int> DaemonExit() const; // exit status, or 128 + signal, once it has ended
    // Descriptors the daemon has open. 0: no daemon.
    std::size_t OpenDescriptors() const;

    // --- files and commands; paths are the board's ---
    std::string ReadFile(const std::string &path) const; // throws when there is none
    std::optional<std::string> TryReadFile(const std::string &path) const { return root_.Read(path); }
    void WriteFile(const std::string &path, const std::string &content, unsigned mode = 0644);
    bool Exists(const std::string &path) const { return root_.Exists(path); }
    void MakeFolder(const std::string &path) { root_.MakeFolder(path); }
    void CopyIn(const std::string &hostPath, const std::string &path) { root_.CopyIn(hostPath, path); }
    // In BusyBox's shell inside the board; not recorded.
    RunResult Run(const std::string &command, Milliseconds limit = Milliseconds(10000));
    // A program with the caller's own standard input and output; its status as in RunResult.
    int RunForeground(const ProcessRequest &request);
    // The board's root as a folder of the PC side: any tool can look into it ("/proc" is not there).
    const std::string &RootFolder() const { return root_.Folder(); }

    // --- network ---
    void Cable(bool in);
    bool CableIn() const { return network_.CableIn(); }
    void DhcpServer(bool on) { network_.DhcpServer(on); }
    std::string PcAddress() const { return network_.PcAddress(); }       // 10.20.30.1 on "pc0"
    std::string BoardAddress() const { return network_.BoardAddress(); } // 10.20.30.2: the fixed one at first
    std::string LeaseAddress() const { return network_.LeaseAddress(); } // 10.20.30.50: from the DHCP server
    std::string BoardMac() const { return network_.BoardMac(); }
    std::string PcInterface() const { return network_.Interface(); }
    std::optional<std::string> Eth0Address() const; // what eth0 has now
    // A socket as a program on the board would have it; the caller closes it. -1 and errno.
    int SocketInBoard(int domain, int type, int protocol = 0) const
    {
        return network_.SocketInBoard(domain, type, protocol);
    }
    // Runs `work` on a thread inside the board's network name space and waits for it.
    void InsideNetwork(const std::function<void()> &work) const { network_.Inside(work); }

    // --- what hangs on the board ---
    void SerialLine(bool connected); // "/dev/ttyO0" is there from now on, or gone
    FpgaLine &Fpga() { return fpga_; }
    void ModemPlugged(bool in); // "/dev/ttyUSB3" is there from now on, or gone
    Modem &TheModem() { return modem_; }
    const Modem &TheModem() const { return modem_; }
    // A file system on /home/root/usb_dev. A disk of another size is a new one; 0 is the last one, with its
    // content, and at first one of 1024 MiB.
    void UsbDisk(bool in, unsigned mebibytes = 0);
    bool UsbDiskIn() const;
    // What the screen behind "/dev/fb<device>" shows; none without it.
    std::optional<ScreenPicture> Picture(unsigned device = 0) const { return ReadFramebuffer(root_, device); }
    Player &ThePlayer() { return player_; }
    const Player &ThePlayer() const { return player_; }
    void PlayerConnected(bool on); // true waits for the login
    bool SendAsPlayer(std::uint32_t code, std::optional<std::uint32_t> value = {});
    void SupervisorListens(bool on);

    // --- what was seen, oldest first, since the beginning or the last Forget ---
    std::vector<std::string> Log() const;      // lines of the daemon, standard output and error as they came
    std::string LogText() const;               // the same with an unfinished last line
    std::vector<std::string> Commands() const; // command lines given to /bin/sh -c
    std::vector<std::vector<std::string>> StandInCalls() const; // name and arguments
    std::vector<Frame> Frames() const { return fpga_.Frames(); }
    std::vector<PlayerMessage> PlayerMessages() const { return player_.Messages(); }
    std::vector<Heartbeat> Heartbeats() const { return supervisor_.Heartbeats(); }
    // What a sanitizer in the daemon has complained about, empty when nothing.
    std::string SanitizerReport() const;
    void Forget(); // all of the above, but for the daemon's state

    // --- waiting ---
    bool WaitFor(const std::function<bool()> &predicate, Milliseconds limit = kDefaultLimit) const;
    // A line that contains `text`, at least `count` of them.
    bool WaitForLog(const std::string &text, std::size_t count = 1, Milliseconds limit = kDefaultLimit) const;
    bool WaitForFrame(std::uint8_t command, std::uint32_t value, Milliseconds limit = kDefaultLimit) const;
    bool WaitForFrames(std::size_t count, Milliseconds limit = kDefaultLimit) const;
    bool WaitForMessage(std::uint32_t code, std::size_t count = 1, Milliseconds limit = kDefaultLimit) const;
    // A recorded command line that contains `text`.
    bool WaitForCommand(const std::string &text, std::size_t count = 1,
                        Milliseconds limit = kDefaultLimit) const;
    bool WaitForExit(Milliseconds limit = kDefaultLimit) const; // of the daemon

    const Options &GetOptions() const { return options_; }

private:
    void BootInside();
    void StartNetwork();
    void LaunchDaemon();
    void AwaitDaemon();
    void Ended(BoardEnd end);
    void KeepAlive();
    int OpenLog();
    void ReceiveLog(int fd);
    void CopyDaemon();
    std::vector<std::string> Environment() const;
    int Wait(const InsideProcess &process, Milliseconds limit) const;
    std::shared_ptr<InsideProcess> Daemon() const;

    Options options_;
    mutable Watcher watcher_;
    BoardRoot root_;
    BoardNetwork network_;
    FpgaLine fpga_;
    Modem modem_;
    Supervisor supervisor_;
    Player player_;
    InsideTree tree_;

    mutable std::recursive_mutex power_; // held while the board goes up or down
    mutable std::mutex lock_;            // of the members below
    std::shared_ptr<InsideProcess> daemon_;
    unsigned boots_ = 0;
    bool usbIn_ = false;
    std::filesystem::file_time_type daemonTime_{};
    std::map<int, ledboard::UniqueFd> logPipes_;
    std::string log_;
    mutable Journal journal_;

    std::condition_variable ended_; // wakes the keeper
    bool rebootWanted_ = false;
    bool stopKeeper_ = false;
    std::thread keeper_;
};

} // namespace board
