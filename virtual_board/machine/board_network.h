// SPDX-License-Identifier: MIT
// virtual_board/machine/board_network.h: the cable between PC and board: a pair of virtual Ethernet ends,
// "pc<number>" here and "eth0" in the board's own network name space.
#pragma once

#include "common/unique_fd.h"
#include "machine/watcher.h"

#include <sys/types.h>

#include <functional>
#include <string>

namespace board
{

class BoardNetwork
{
public:
    explicit BoardNetwork(unsigned number); // throws std::runtime_error
    ~BoardNetwork();
    BoardNetwork(const BoardNetwork &) = delete;
    BoardNetwork &operator=(const BoardNetwork &) = delete;

    // Out: eth0 loses its carrier. In: the carrier is back, and so is the PC's default route over it.
    void Cable(bool in);
    bool CableIn() const { return cableIn_; }
    bool HasCarrier() const; // of eth0, as the board is told

    // A DHCP server on the PC side, which gives the board LeaseAddress().
    void DhcpServer(bool on);

    const std::string &Interface() const { return interface_; }
    std::string PcAddress() const { return network_ + ".1"; }
    std::string BoardAddress() const { return network_ + ".2"; } // the fixed one
    std::string LeaseAddress() const { return network_ + ".50"; }
    std::string BoardMac() const; // as "02:4c:45:44:00:00"

    // A socket in the board's network name space; the caller owns it. -1 and errno.
    int SocketInBoard(int domain, int type, int protocol) const;
    // Runs `work` on a thread of its own inside the board's network name space and waits for it.
    void Inside(const std::function<void()> &work) const;
    int NamespaceDescriptor() const { return space_.Get(); }

private:
    void CreatePair();
    void AddDefaultRoute() const;

    unsigned number_;
    std::string interface_;
    std::string network_;
    ledboard::UniqueFd space_;
    bool cableIn_ = true;
    pid_t dhcpServer_ = -1;
};

} // namespace board
