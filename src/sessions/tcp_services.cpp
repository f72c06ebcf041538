// SPDX-License-Identifier: MIT
#include "sessions/tcp_services.h"

#include "base/diag.h"
#include "common/unique_fd.h"
#include "sessions/session_service.h"
#include "state/server_status.h"

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
constexpr int kMaxListedForLogin = 2;
constexpr int kMaxReceivesInARound = 8;
// The client that cannot be accepted stays in the queue, and the listener readable.
constexpr std::chrono::milliseconds kShortagePause{20};

// Closed for a moment when accept runs out of descriptors, so that the client can be accepted and closed. The
// listener would otherwise stay readable, and the loop would spin.
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
        const bool turnedAway = ledboard::UniqueFd(accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC)).Valid();
        s_spareFd.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!turnedAway) // another thread has taken the spare descriptor
            std::this_thread::sleep_for(kShortagePause);
    } else if (error == ENOMEM || error == ENOBUFS) {
        std::this_thread::sleep_for(kShortagePause);
    }
    errno = error;
    return client;
}

void ReleaseSession(SocketSession *session)
{
    delete[] session->buff;
    delete session;
}

wire::LoginStatus CountedLogin(int listed)
{
    return listed <= kMaxListedForLogin ? wire::kLoginAccepted : wire::kLoginRefused;
}

wire::LoginStatus FirmwareLogin(int listed)
{
    return g_serverStatus.upgradeFlag == 1 ? wire::kLoginUpgrading : CountedLogin(listed);
}

wire::LoginStatus PlayerLogin(int)
{
    return wire::kLoginAccepted;
}

wire::LoginStatus ModemLogin(int)
{
    return wire::kLoginModem;
}

// What closes a session after the service has handled a packet.
enum class Failure {
    kMinusOne,    // the result -1
    kZero,        // the result 0
    kConnectFlag, // the session's flag, which the service clears; its result is not used
};

// What the session layer has to know of a sub-type.
struct SubType {
    std::int32_t number;
    wire::LoginStatus (*decideLogin)(int listed); // `listed` counts the new session
    Failure failure;
    const char *failureText; // logged when the service has failed; NULL: nothing
    const char *loginTrace;  // Qt debug messages at login and at each packet; NULL: none
    const char *packetTrace;
    SessionService *service = nullptr; // registered by start-up
};

SubType s_subTypes[] = {
    {wire::kSessionUpload, CountedLogin, Failure::kMinusOne, nullptr, nullptr, nullptr},
    {wire::kSessionSettings, CountedLogin, Failure::kConnectFlag, nullptr, nullptr, nullptr},
    {wire::kSessionFirmware, FirmwareLogin, Failure::kMinusOne, "dispose packet error!!!!!!!!!\n", nullptr,
     nullptr},
    {wire::kSessionPlayer, PlayerLogin, Failure::kZero, nullptr, nullptr, nullptr},
    {wire::kSessionModem, ModemLogin, Failure::kMinusOne, nullptr, "TcpServices [KThirdGenerationThread]",
     "TcpServices [PT_GET3GINFO_CMD]"},
};

// NULL for a sub-type that no service has.
SubType *FindSubType(std::int32_t number)
{
    for (SubType &row : s_subTypes) {
        if (row.number == number)
            return &row;
    }
    return nullptr;
}

void CallLogOut(const SocketSession *session)
{
    if (session->session == nullptr)
        return;
    SessionService *const service = FindSubType(session->subType)->service;
    service->SessionEnds(session);
    service->LogOut();
}

void EndSession(SocketSession *session)
{
    UnregisterClientConnect(session);
    CallLogOut(session);
    if (session->fd != -1)
        close(session->fd);
    ReleaseSession(session);
}

void BindAndLogIn(SocketSession *session)
{
    const SubType *const row = FindSubType(session->subType);
    // QUIRK unknown-sub-type: it is answered like a known one but nothing is bound, so that the next packet
    // is a login again; a refusal would be expected.
    if (row == nullptr || row->service == nullptr)
        return;
    if (row->loginTrace != nullptr)
        qDebug("%s", row->loginTrace);
    {
        const std::lock_guard lock(SessionListMutex());
        session->session = row->number == wire::kSessionPlayer ? kPlayerChannel : row->service;
    }
    row->service->LogIn();
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
    // QUIRK login-discards: what came after the login in the same read is lost; it would be expected to be
    // served.
    session->remain = 0;
    std::memset(session->buff, 0, wire::kSessionBufferSize);

    const SubType *const row = FindSubType(session->subType);
    const wire::LoginStatus status = (row == nullptr ? CountedLogin : row->decideLogin)(ListedSessions(list));
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
    const SubType &row = *FindSubType(session->subType);
    if (row.packetTrace != nullptr)
        qDebug("%s", row.packetTrace);
    const int result = row.service->DisposePacket(session);
    // A settings client that does not take its answer is closed: nobody waits for the next one.
    const bool failed = row.failure == Failure::kMinusOne ? result == -1
                        : row.failure == Failure::kZero   ? result == 0
                                                          : session->connectFlag == 0;
    if (failed && row.failureText != nullptr)
        Diag(kUnit, "TcpServices", __LINE__, "%s", row.failureText);
    return !failed;
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

// A receive that got all it asked for has most likely left more in the socket. The rest is fetched in the
// same round, so that a big upload does not pay for a select per packet. The number of receives is limited,
// so that no other client waits long.
bool Serve(SocketSession *session, const llist *list)
{
    for (int receives = 0; receives < kMaxReceivesInARound; ++receives) {
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

void RegisterSessionService(std::int32_t subType, SessionService *service)
{
    if (SubType *const row = FindSubType(subType))
        row->service = service;
}

std::optional<wire::Bytes> FramedPacket(const SocketSession &session)
{
    if (session.buff == nullptr)
        return std::nullopt;
    const wire::Bytes held = wire::BytesAt(session.buff, static_cast<std::size_t>(session.remain));
    const auto frame = wire::Read<wire::FrameHeader>(held);
    if (!frame || frame->length < sizeof *frame || frame->length > held.size())
        return std::nullopt;
    return held.first(frame->length);
}

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
