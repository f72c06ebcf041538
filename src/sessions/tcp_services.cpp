// SPDX-License-Identifier: MIT
#include "sessions/tcp_services.h"

#include "base/diag.h"
#include "common/unique_fd.h"
#include "firmware/version_thread.h"
#include "modem/third_generation.h"
#include "player/server_witch_plexa.h"
#include "settings/serial_thread.h"
#include "state/server_status.h"
#include "state/services.h"
#include "upload/work_thread.h"

#include <QtGlobal>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

namespace
{

constexpr char kUnit[] = "src/tcp_services.cpp";

// Descriptors kept free for files, commands and the services, however many clients knock.
constexpr int kReservedDescriptors = 64;
constexpr int kMostListedForLogin = 2;
constexpr int kMostReceivesInARound = 8;
constexpr std::chrono::milliseconds kMemoryPause{20}; // the client that cannot be accepted stays in the queue

// Given away for a moment when accept runs out of descriptors, so that the client can be turned away and the
// listener does not stay readable for ever.
ledboard::UniqueFd s_spareFd;

int DescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == -1 || limit.rlim_cur > FD_SETSIZE)
        return FD_SETSIZE;
    return static_cast<int>(limit.rlim_cur);
}

ledboard::UniqueFd AcceptOne(int listenFd, sockaddr_in *peer)
{
    socklen_t size = sizeof *peer;
    ledboard::UniqueFd client(accept4(listenFd, reinterpret_cast<sockaddr *>(peer), &size, SOCK_CLOEXEC));
    if (client.Valid())
        return client;
    const int error = errno;
    if (error == EMFILE || error == ENFILE) {
        s_spareFd.Reset();
        ledboard::UniqueFd(accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)).Reset();
        s_spareFd.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    } else if (error == ENOMEM || error == ENOBUFS) {
        std::this_thread::sleep_for(kMemoryPause);
    }
    errno = error;
    return client;
}

void ReleaseSession(SocketSession *session)
{
    delete[] session->buff;
    delete session;
}

void CallLogOut(const SocketSession *session)
{
    if (session->session == nullptr)
        return;
    switch (session->subType) {
    case wire::kSessionUpload:
        static_cast<KWorkThread *>(session->session)->LogOut();
        break;
    case wire::kSessionSettings:
        static_cast<KSerialThread *>(session->session)->SessionEnds(session);
        static_cast<KSerialThread *>(session->session)->LogOut();
        break;
    case wire::kSessionFirmware:
        static_cast<KVersionThread *>(session->session)->LogOut();
        break;
    default:
        break;
    }
}

void EndSession(SocketSession *session)
{
    UnregisterClientConnect(session);
    CallLogOut(session);
    if (session->fd != -1)
        close(session->fd);
    ReleaseSession(session);
}

wire::LoginStatus DecideLogin(std::int32_t subType, int listed)
{
    if (subType == wire::kSessionPlayer)
        return wire::kLoginAccepted;
    if (subType == wire::kSessionModem)
        return wire::kLoginModem;
    if (subType == wire::kSessionFirmware && g_serverStatus.upgradeFlag == 1)
        return wire::kLoginUpgrading;
    return listed <= kMostListedForLogin ? wire::kLoginAccepted : wire::kLoginRefused;
}

void BindService(SocketSession *session, void *service)
{
    const std::lock_guard lock(SessionListMutex());
    session->session = service;
}

void BindAndLogIn(SocketSession *session)
{
    switch (session->subType) {
    case wire::kSessionUpload:
        BindService(session, g_recvProgram);
        g_recvProgram->LogIn();
        break;
    case wire::kSessionSettings:
        BindService(session, g_serial);
        g_serial->LogIn();
        break;
    case wire::kSessionFirmware:
        BindService(session, g_version);
        g_version->LogIn();
        break;
    case wire::kSessionPlayer:
        BindService(session, kPlayerChannel);
        break;
    case wire::kSessionModem:
        qDebug("TcpServices [KThirdGenerationThread]");
        BindService(session, g_3GInfo);
        break;
    default:
        // QUIRK unknown-sub-type: it is answered like a known one but nothing is bound, so that the next
        // packet is a login again; a refusal would be expected.
        break;
    }
}

int ListedSessions(const llist *list)
{
    const std::lock_guard lock(SessionListMutex());
    return GetListLens(list);
}

// True when the session goes on.
bool ManagerConnecting(SocketSession *session, const llist *list)
{
    const auto login = wire::Read<wire::LoginPacket>(
        wire::BytesAt(session->buff, static_cast<std::size_t>(session->remain)));
    if (!login || login->length < sizeof(wire::LoginPacket))
        return false;
    {
        const std::lock_guard lock(SessionListMutex());
        session->type = 1;
        session->subType = static_cast<std::int32_t>(login->subType);
    }
    // QUIRK login-discards: what came behind the login in the same read is lost; it would be expected to be
    // served.
    session->remain = 0;
    std::memset(session->buff, 0, wire::kSessionBufferSize);

    const wire::LoginStatus status = DecideLogin(session->subType, ListedSessions(list));
    const wire::LoginReply reply{.length = sizeof(wire::LoginReply), .status = status, .zero = {}};
    char text[sizeof reply + 1] = {};
    std::memcpy(text, &reply, sizeof reply);
    qDebug("ManagerConnecting buff =[%s]", text);
    if (SendBytes(session->fd, wire::BytesOf(reply)) != sizeof reply) {
        DiagErrno(kUnit, __func__, __LINE__, "send log in back packet fail: ");
        return false;
    }
    if (status == wire::kLoginRefused || status == wire::kLoginUpgrading)
        return false;
    BindAndLogIn(session);
    return true;
}

// True when the session goes on.
bool Dispatch(SocketSession *session)
{
    switch (session->subType) {
    case wire::kSessionUpload:
        return g_recvProgram->DisposePacket(session) != -1;
    case wire::kSessionSettings:
        g_serial->DisposePacket(session); // its result is not looked at
        return session->connectFlag != 0; // nobody waits for a second answer that is not taken
    case wire::kSessionFirmware:
        if (g_version->DisposePacket(session) != -1)
            return true;
        Diag(kUnit, "TcpServices", __LINE__, "dispose packet error!!!!!!!!!\n");
        return false;
    case wire::kSessionPlayer:
        return DisposePlexaMessage(session) != 0;
    case wire::kSessionModem:
        qDebug("TcpServices [PT_GET3GINFO_CMD]");
        return g_3GInfo->DisposePacket(session) != -1;
    default:
        return true;
    }
}

// The length word of a complete packet at the start of the buffer.
std::optional<std::uint32_t> CompletePacket(const SocketSession *session)
{
    const auto held = static_cast<std::size_t>(session->remain);
    const auto length = wire::Read<wire::U32>(wire::BytesAt(session->buff, held));
    if (!length || *length > held)
        return std::nullopt;
    return *length;
}

// Hands out the complete packets that the buffer holds. True when the session goes on.
bool DispatchAll(SocketSession *session)
{
    while (const auto length = CompletePacket(session)) {
        if (!Dispatch(session))
            return false;
        // QUIRK length-unchecked: a length below 4 is taken as given; it would be expected to end the
        // session. With a length of 0 the bytes stay, and the session ends when they fill its buffer.
        if (*length == 0)
            return true;
        session->remain -= static_cast<std::int32_t>(*length);
        std::memmove(session->buff, session->buff + *length, static_cast<std::size_t>(session->remain));
    }
    return true;
}

std::size_t Room(const SocketSession *session)
{
    return wire::kSessionBufferSize - static_cast<std::size_t>(session->remain);
}

enum class Received { kGone, kNothing, kSome, kAllAskedFor };

// Receives what there is room for. kGone: the peer is gone or the buffer is full.
Received ReceiveInto(SocketSession *session)
{
    const std::size_t room = Room(session);
    if (room == 0)
        return Received::kGone;
    const ssize_t count = recv(session->fd, session->buff + session->remain, room, MSG_DONTWAIT);
    if (count == -1 && (errno == EINTR || errno == EAGAIN))
        return Received::kNothing;
    if (count < 1)
        return Received::kGone;
    session->remain += static_cast<std::int32_t>(count);
    return static_cast<std::size_t>(count) == room ? Received::kAllAskedFor : Received::kSome;
}

bool Handle(SocketSession *session, const llist *list)
{
    if (session->session != nullptr)
        return DispatchAll(session);
    return !CompletePacket(session) || ManagerConnecting(session, list);
}

// A receive that gets all it asked for has most likely left more behind. That is fetched in the same round,
// so that a big upload does not pay for a select per packet, but not for long, so that nobody waits behind
// it.
bool Serve(SocketSession *session, const llist *list)
{
    for (int receives = 0; receives < kMostReceivesInARound; ++receives) {
        const Received received = ReceiveInto(session);
        if (received == Received::kGone)
            return false;
        if (received == Received::kNothing)
            return true;
        if (!Handle(session, list))
            return false;
        if (received != Received::kAllAskedFor || session->fd == -1 || Room(session) == 0)
            return true;
    }
    return true;
}

} // namespace

int AcceptClient(int listenFd, llist *list)
{
    if (!s_spareFd.Valid())
        s_spareFd.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    Diag(kUnit, __func__, __LINE__, "accept one client connecting.");
    sockaddr_in peer{};
    ledboard::UniqueFd client = AcceptOne(listenFd, &peer);
    if (!client.Valid()) {
        DiagErrno(kUnit, __func__, __LINE__, "accept socket fail");
        return 0;
    }
    if (client.Get() >= DescriptorLimit() - kReservedDescriptors) {
        Diag(kUnit, __func__, __LINE__, "too many clients, the connection is closed.");
        return 0;
    }
    SetSessionSendLimit(client.Get());

    auto *const session = new SocketSession;
    session->fd = client.Get();
    session->buff = new char[wire::kSessionBufferSize]{};
    session->ip = static_cast<std::int32_t>(peer.sin_addr.s_addr);
    session->port = peer.sin_port;
    int added;
    {
        const std::lock_guard lock(SessionListMutex());
        added = AddToList(list, session);
    }
    if (added == 0) {
        Diag(kUnit, __func__, __LINE__, "add session to list fail.");
        ReleaseSession(session);
        return 0;
    }
    client.Release();
    RegisterClientConnect(session);
    return 0;
}

int TcpServices(SocketSession *session, llist *list)
{
    if (Serve(session, list))
        return 1;
    Diag(kUnit, __func__, __LINE__, "connecting error, one client quit!");
    EndSession(session);
    return 0;
}

void CloseClient(SocketSession *session, llist *)
{
    if (session != nullptr)
        EndSession(session);
}
