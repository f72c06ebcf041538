// SPDX-License-Identifier: MIT
#include "sessions/client_session.h"

#include "common/unique_fd.h"

#include <fcntl.h>

llist *g_llist = nullptr;

namespace
{

llist *s_list = nullptr;

// The first session of this sub-type in list order; the list is locked.
FoundSession::Result FindLocked(std::int32_t subType, SocketSession **session)
{
    for (llist *node = s_list == nullptr ? nullptr : s_list->next; node != nullptr; node = node->next) {
        auto *const candidate = static_cast<SocketSession *>(node->data);
        if (candidate == nullptr)
            return FoundSession::kEmptyNode;
        // A session that is not logged in yet carries sub-type 0 as well, but is nobody's service session.
        if (candidate->subType != subType || candidate->session == nullptr || candidate->fd < 0)
            continue;
        *session = candidate;
        return FoundSession::kFound;
    }
    return FoundSession::kNone;
}

} // namespace

std::mutex &SessionListMutex()
{
    static std::mutex mutex;
    return mutex;
}

void RegisterClientConnect(SocketSession *session)
{
    const std::lock_guard lock(SessionListMutex());
    if (s_list == nullptr)
        s_list = NewLList();
    AddToList(s_list, session);
}

void UnregisterClientConnect(SocketSession *session)
{
    const std::lock_guard lock(SessionListMutex());
    RemoveFromList(s_list, session);
}

void UpdateClientSession(std::int32_t ip)
{
    const std::lock_guard lock(SessionListMutex());
    if (s_list == nullptr)
        return;
    for (llist *node = s_list->next; node != nullptr; node = node->next) {
        SocketSession *const session = static_cast<SocketSession *>(node->data);
        if (session->ip != ip)
            continue;
        // QUIRK first-session-only: a search keeps one session of its sender alive, the oldest; a reader
        // would expect all sessions of that peer to be refreshed.
        session->timeout = 0;
        return;
    }
}

void ClientSessionTick()
{
    const std::lock_guard lock(SessionListMutex());
    if (s_list == nullptr)
        return;
    for (llist *node = s_list->next; node != nullptr; node = node->next)
        ++static_cast<SocketSession *>(node->data)->timeout;
    for (llist *node = s_list->next; node != nullptr; node = node->next) {
        SocketSession *const session = static_cast<SocketSession *>(node->data);
        if (session->subType != wire::kSessionPlayer && session->timeout > kSessionTimeout)
            session->connectFlag = 0;
    }
}

FoundSession FindSession(std::int32_t subType)
{
    const std::lock_guard lock(SessionListMutex());
    FoundSession found;
    SocketSession *session = nullptr;
    found.result = FindLocked(subType, &session);
    if (found.result == FoundSession::kFound) {
        found.fd = session->fd;
        found.socket = ledboard::UniqueFd(fcntl(session->fd, F_DUPFD_CLOEXEC, 0));
    }
    return found;
}

FoundSession::Result DropSession(std::int32_t subType)
{
    const std::lock_guard lock(SessionListMutex());
    SocketSession *session = nullptr;
    const FoundSession::Result result = FindLocked(subType, &session);
    if (result == FoundSession::kFound) {
        ledboard::UniqueFd(session->fd).Reset();
        session->fd = -1;
        session->connectFlag = 0;
    }
    return result;
}
