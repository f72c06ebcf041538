// SPDX-License-Identifier: MIT
#include "client_session.h"

#include <fcntl.h>

namespace
{

llist *s_list = nullptr;

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
    if (s_list == nullptr)
        return found;
    for (llist *node = s_list->next; node != nullptr; node = node->next) {
        const SocketSession *const session = static_cast<SocketSession *>(node->data);
        if (session == nullptr) {
            found.result = FoundSession::kEmptyNode;
            return found;
        }
        // A session that is not logged in yet carries sub-type 0 as well, but is nobody's service session.
        if (session->subType != subType || session->session == nullptr || session->fd < 0)
            continue;
        found.result = FoundSession::kFound;
        found.fd = session->fd;
        found.socket = UniqueFd(fcntl(session->fd, F_DUPFD_CLOEXEC, 0));
        return found;
    }
    return found;
}
