// SPDX-License-Identifier: MIT
#include "loop/network.h"

#include "addressing/init_network.h"
#include "addressing/ip_config.h"
#include "addressing/netlink.h"
#include "base/diag.h"
#include "base/shell.h"
#include "discovery/search_services.h"
#include "loop/network_setup.h"
#include "player/server_witch_plexa.h"
#include "remote/device_context.h"
#include "sessions/client_session.h"
#include "sessions/tcp_services.h"
#include "settings/reboot_ploy.h"
#include "state/addressing_mode.h"
#include "state/monitor_slots.h"
#include "state/server_config.h"
#include "state/server_status.h"
#include "state/services.h"
#include "state/tick.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace
{

constexpr char kUnit[] = "src/network.c";

// What one round watches, and what select reported.
struct WatchSet {
    fd_set readable;
    fd_set failed;
    int highest = -1;
    MonitorSlots slots; // as they were when the round began
};

// Visits the sessions in list order; the visitor may unlink the session that it is given. Only this thread
// changes the list, so it reads the list without the lock.
template <typename Visit> void ForEachSession(Visit visit)
{
    for (llist *node = g_llist->next; node != nullptr;) {
        SocketSession *const session = static_cast<SocketSession *>(node->data);
        node = node->next;
        visit(session);
    }
}

void Unlink(SocketSession *session)
{
    const std::lock_guard lock(SessionListMutex());
    RemoveFromList(g_llist, session);
}

void CloseAndRemove(SocketSession *session)
{
    Unlink(session);
    CloseClient(session, g_llist);
}

// The player keeps its session when the link fails and when the loop ends.
void CloseAllButPlayer()
{
    ForEachSession([](SocketSession *session) {
        if (session->subType != wire::kSessionPlayer)
            CloseAndRemove(session);
    });
}

void Watch(WatchSet *watch, int fd)
{
    if (fd < 0 || fd >= FD_SETSIZE)
        return;
    FD_SET(fd, &watch->readable);
    FD_SET(fd, &watch->failed);
    watch->highest = std::max(watch->highest, fd);
}

bool IsSet(int fd, const fd_set &set)
{
    return fd >= 0 && fd < FD_SETSIZE && FD_ISSET(fd, &set);
}

MonitorSlots CopySlots()
{
    MonitorSlots slots;
    for (std::size_t slot = 0; slot < slots.size(); ++slot) {
        // Other threads write to this one only.
        slots[slot] = slot == kSlotRemoteServer ? CopyMonitor((*g_sessions)[slot]) : (*g_sessions)[slot];
    }
    return slots;
}

void FillWatchSet(WatchSet *watch)
{
    FD_ZERO(&watch->readable);
    FD_ZERO(&watch->failed);
    watch->highest = -1;
    ForEachSession([watch](const SocketSession *session) { Watch(watch, session->fd); });
    watch->slots = CopySlots();
    for (const MonitorSession &slot : watch->slots) {
        if (slot.valid == 1)
            Watch(watch, slot.fd);
    }
}

void MarkFailedSessions(const WatchSet &watch)
{
    ForEachSession([&watch](SocketSession *session) {
        if (IsSet(session->fd, watch.failed))
            session->connectFlag = 0;
    });
}

void CloseMarkedSessions()
{
    ForEachSession([](SocketSession *session) {
        if (session->connectFlag != 0)
            return;
        CloseAndRemove(session);
        Diag(kUnit, "WorkLoop", __LINE__, "find one bad fd, remove from list and close!");
    });
}

void ServeReadableSessions(const WatchSet &watch)
{
    ForEachSession([&watch](SocketSession *session) {
        if (!IsSet(session->fd, watch.readable) || session->type != 1)
            return;
        if (TcpServices(session, g_llist) == 0)
            Unlink(session);
    });
}

void LinkIsDown()
{
    Diag(kUnit, "WorkLoop", __LINE__, "netlink event down.");
    if (g_serverStatus.netlinkFlag == 1) {
        NetworkError();
        CloseAllButPlayer();
    }
    g_serverStatus.netlinkFlag = 0;
}

void HandleLinkEvent(int fd)
{
    switch (ParseNetlinkEvent(fd)) {
    case 1:
        Diag(kUnit, "WorkLoop", __LINE__, "netlink event up.");
        g_serverStatus.netlinkFlag = 1;
        break;
    case 0:
        LinkIsDown();
        break;
    default:
        Diag(kUnit, "WorkLoop", __LINE__, "netlink event error.");
        // QUIRK error-is-down: an event that says nothing about a link, such as the end of another interface,
        // counts as a link that is down already, so that the next pull of the cable closes nothing; no change
        // would be expected.
        g_serverStatus.netlinkFlag = 0;
        break;
    }
    Diag(kUnit, "WorkLoop", __LINE__, "netlinck flag %d, fixed status %d\n",
         g_serverStatus.netlinkFlag.load(), GetFixedStatus());
    if (g_serverStatus.netlinkFlag != 0 || GetFixedStatus() != 0)
        return;
    RestartDhcpClient();
    InsertToTick(DelaySnicker);
}

void HandleProbe(MonitorSession *slot)
{
    if (DisposeSnickerPacket(slot->fd) != 0)
        return;
    slot->valid = 0;
    close(slot->fd);
    slot->fd = -1;
}

// True when a tick fired.
bool HandleTick(int fd)
{
    if (ReadTick(fd) != 1)
        return false;
    CallTickFunctions();
    return true;
}

void HandleSlot(MonitorSession *slot)
{
    switch (slot->type) {
    case kSlotDiscovery:
        DisposeUdpPacket(slot->fd);
        break;
    case kSlotSessions:
    case kSlotCustomSessions:
        AcceptClient(slot->fd, g_llist);
        break;
    case kSlotLink:
        HandleLinkEvent(slot->fd);
        break;
    case kSlotProbe:
        HandleProbe(slot);
        break;
    case kSlotCustomDiscovery:
        DisposeUdpPacketInFixed(slot->fd);
        break;
    case kSlotRemoteServer:
        g_deviceContext->DisposePacket(g_deviceContext);
        break;
    default:
        break;
    }
}

// A handler may close and open slots that come after its own: a slot is served only if it is still the one
// that select saw.
bool StillReadable(const WatchSet &watch, std::size_t index)
{
    const MonitorSession now =
        index == kSlotRemoteServer ? CopyMonitor((*g_sessions)[index]) : (*g_sessions)[index];
    return now.valid == 1 && now.fd == watch.slots[index].fd && IsSet(now.fd, watch.readable);
}

void ServeSlots(const WatchSet &watch)
{
    bool tickFired = false;
    for (std::size_t index = 0; index < kSlotCount; ++index) {
        // QUIRK tick-skips-probe: in a round in which the tick fires the address probe is not looked at, its
        // packet waits for the next round; every slot would be expected to be served.
        if (index == kSlotProbe && tickFired)
            continue;
        if (!StillReadable(watch, index))
            continue;
        MonitorSession &slot = (*g_sessions)[index];
        if (slot.type == kSlotTick)
            tickFired = HandleTick(slot.fd);
        else
            HandleSlot(&slot);
    }
}

// False when select failed for good.
bool RunRound()
{
    WatchSet watch;
    FillWatchSet(&watch);
    timeval limit{.tv_sec = 1, .tv_usec = 0};
    const int ready = select(watch.highest + 1, &watch.readable, nullptr, &watch.failed, &limit);
    if (ready == 0)
        return true;
    if (ready == -1) {
        if (errno != EINTR)
            return false;
        Diag(kUnit, "WorkLoop", __LINE__, "select was interrupted.");
        return true;
    }
    MarkFailedSessions(watch);
    CloseMarkedSessions();
    ServeReadableSessions(watch);
    ServeSlots(watch);
    return true;
}

bool CreateSessionList()
{
    g_llist = NewLList();
    if (g_llist == nullptr)
        DiagErrno(kUnit, "WorkLoop", __LINE__, "new llist fail.");
    return g_llist != nullptr;
}

void StartTicks()
{
    InsertToTick(SetUDPPacketAddress);
    InsertToTick(ClientSessionTick);
}

void ReleaseSlots(std::unique_ptr<MonitorSlots> slots)
{
    g_deviceContext->SetMonitor(g_deviceContext, nullptr);
    CloseSlots(slots.get());
    g_sessions = nullptr;
}

void EndLoop(std::unique_ptr<MonitorSlots> slots)
{
    DiagErrno(kUnit, "WorkLoop", __LINE__, "select fail: ");
    ReleaseSlots(std::move(slots));
    RemoveFromTick(SetUDPPacketAddress);
    RemoveFromTick(ClientSessionTick);
    CloseAllButPlayer();
    // QUIRK player-left-open: the player's session is neither closed nor released when the loop ends; all
    // sessions would be expected to be.
    {
        const std::lock_guard lock(SessionListMutex());
        FreeLList(g_llist);
        g_llist = nullptr;
    }
    Diag(kUnit, "WorkLoop", __LINE__, "work loop end.");
}

} // namespace

void WorkLoop()
{
    if (!GetSystemEnvInfo()) {
        // QUIRK quit-that-goes-on: the line says that the loop ends, but it goes on with an empty MAC; an end
        // would be expected.
        Diag(kUnit, __func__, __LINE__, "Get System ENV Info Failed In Work Loop and Work Loop be Quit!");
    }
    if (!GetUserConfigInfo())
        Diag(kUnit, __func__, __LINE__, "Get User Config Info Failed In Work Loop and Work Loop be Quit!");
    std::unique_ptr<MonitorSlots> slots = InitListener();
    if (slots == nullptr) {
        Diag(kUnit, __func__, __LINE__, "Init Listener Failed In Work Loop and Work Loop be Quit!");
        return;
    }
    g_sessions = slots.get();
    CheckShell();
    ReloadRebootPloy();
    g_deviceContext->LoadConfigFile(g_deviceContext, g_remoteServerFile);
    g_deviceContext->SetMonitor(g_deviceContext, &(*slots)[kSlotRemoteServer]);
    if (!CreateSessionList()) {
        ReleaseSlots(std::move(slots));
        return;
    }
    StartTicks();
    g_serverStatus.ipSetFlag = 1;
    g_serverStatus.tcpConnectFlag = 0;
    g_serverStatus.netlinkFlag = 1;
    g_serverStatus.upgradeFlag = 0;
    Diag(kUnit, __func__, __LINE__, "Socket Init Success in Work Loop and Wait for Accept Client.");
    while (RunRound()) {
    }
    EndLoop(std::move(slots));
}

void FreeAllSocketResource()
{
    if (g_sessions != nullptr) {
        g_deviceContext->SetMonitor(g_deviceContext, nullptr);
        CloseSlots(g_sessions);
    }
    if (g_llist == nullptr)
        return;
    ForEachSession([](SocketSession *session) {
        const std::lock_guard lock(SessionListMutex());
        if (session->fd != -1)
            close(session->fd);
        session->fd = -1;
    });
}
