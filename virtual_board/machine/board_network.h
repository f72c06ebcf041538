// SPDX-License-Identifier: MIT
// virtual_board/machine/board_network.h: the cable between PC and board: a pair of virtual Ethernet ends,
// "pc<number>" on the PC and "eth0" in the board's own network namespace. Every function may be called from
// any thread.
#pragma once

#include "common/unique_fd.h"

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace board
{

class BoardNetwork
{
public:
    BoardNetwork(unsigned number, bool dhcpServer); // throws std::runtime_error
    ~BoardNetwork();
    BoardNetwork(const BoardNetwork &) = delete;
    BoardNetwork &operator=(const BoardNetwork &) = delete;

    // Out: eth0 loses its carrier. In: the carrier is back, and so is the PC's default route over it.
    void Cable(bool in);
    bool CableIn() const { return cableIn_; }
    bool HasCarrier() const; // of eth0, as the board sees it

    // A DHCP server on the PC side, which gives the board LeaseAddress().
    void DhcpServer(bool on);

    const std::string &PcInterface() const { return interface_; } // "pc0"
    std::string PcAddress() const { return network_ + ".1"; }     // 10.20.30.1
    std::string BoardAddress() const { return network_ + ".2"; }  // 10.20.30.2, the fixed one at first
    std::string LeaseAddress() const { return network_ + ".50"; } // 10.20.30.50
    std::string BoardMac() const;                                 // as "02:4c:45:44:00:00"
    std::optional<std::string> Eth0Address() const;               // what eth0 has now

    // A socket as a program on the board would have it; invalid and errno if there is none.
    ledboard::UniqueFd Socket(int domain, int type, int protocol = 0) const;
    // Runs `work` on a thread of its own inside the board's network namespace and waits for it.
    void Inside(const std::function<void()> &work) const;
    int NamespaceDescriptor() const { return space_.Get(); }

private:
    void CreatePair();
    void AddDefaultRoute() const;
    void StartDhcpServer(const std::string &base); // `base`: of its files' names

    const unsigned number_;
    const std::string interface_;
    const std::string network_;
    ledboard::UniqueFd space_;
    std::atomic<bool> cableIn_ = true;
    std::mutex lock_; // of the server below
    pid_t dhcpServer_ = -1;
};

} // namespace board
