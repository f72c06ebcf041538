// SPDX-License-Identifier: MIT
// Byte streams of hostile clients: the first byte says how many sessions there are already and whether an
// upgrade runs, then each step is a length and as many bytes, which the daemon receives in one read. What
// reaches the services, what is answered and when the session ends is compared with a plain model of the
// framing.
#include "common/unique_fd.h"
#include "records/session_records.h"
#include "sessions/session_service.h"
#include "sessions/tcp_services.h"
#include "state/server_status.h"

#include <QtGlobal>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace
{

constexpr std::size_t kBufferSize = 9216;
constexpr char kRefused = '\xEE'; // a packet whose last byte this is, is refused by its service

void Require(bool condition)
{
    if (!condition)
        std::abort();
}

// What happened, in order: 'I' and 'O' logged in and out, then the service's number; 'P' a packet and its
// bytes.
std::string s_events;

std::string PacketEvent(char service, const std::string &packet)
{
    return "P" + std::string(1, service) + std::to_string(packet.size()) + ":" + packet;
}

// In place of a service: notes what reaches it.
class Recorder : public SessionService
{
public:
    Recorder(char number, int accepted, int refused) : number_(number), accepted_(accepted), refused_(refused)
    {
    }
    int LogIn() override
    {
        s_events += std::string("I") + number_;
        return 0;
    }
    int LogOut() override
    {
        s_events += std::string("O") + number_;
        return 0;
    }
    int DisposePacket(SocketSession *session) override
    {
        const wire::Bytes held = wire::BytesAt(session->buff, static_cast<std::size_t>(session->remain));
        const auto length = wire::Read<wire::U32>(held);
        Require(length && *length <= held.size());
        const std::string packet(session->buff, *length);
        s_events += PacketEvent(number_, packet);
        return packet.empty() || packet.back() != kRefused ? accepted_ : refused_;
    }

private:
    char number_;
    int accepted_;
    int refused_; // ends the session, except that of the settings
};

std::uint32_t WordAt(const std::string &bytes, std::size_t offset)
{
    return *wire::Read<wire::U32>(wire::BytesAt(bytes.data(), bytes.size()), offset);
}

// The framing, as plainly as it can be said.
class Model
{
public:
    Model(int sessions, bool upgrading) : sessions_(sessions), upgrading_(upgrading) {}

    // One read. False when the session ends.
    bool Read(const std::string &bytes)
    {
        held_ += bytes;
        if (bytes.empty())
            return End();
        if (!service_)
            return LogIn() || End();
        while (held_.size() >= 4 && WordAt(held_, 0) <= held_.size()) {
            const std::string packet = held_.substr(0, WordAt(held_, 0));
            events += PacketEvent(*service_, packet);
            const bool refused = !packet.empty() && packet.back() == kRefused;
            if (refused && *service_ != '1')
                return End();
            if (packet.empty())
                break;
            held_.erase(0, packet.size());
        }
        return true;
    }
    std::size_t Room() const { return kBufferSize - held_.size(); }

    std::string events;
    std::string sent;

private:
    bool LogIn()
    {
        if (held_.size() < 4 || WordAt(held_, 0) > held_.size())
            return true;
        if (WordAt(held_, 0) < 8)
            return false;
        const std::uint32_t subType = WordAt(held_, 4);
        held_.clear();
        const char status = subType == 3                 ? 1
                            : subType == 4               ? 4
                            : subType == 2 && upgrading_ ? 2
                            : sessions_ <= 2             ? 1
                                                         : 0;
        sent += std::string("\x08\0\0\0", 4) + status + std::string(3, '\0');
        if (status == 0 || status == 2)
            return false;
        if (subType <= 4) {
            service_ = static_cast<char>('0' + subType);
            events += std::string("I") + *service_;
        }
        return true;
    }
    bool End()
    {
        if (service_)
            events += std::string("O") + *service_;
        return false;
    }

    int sessions_;
    bool upgrading_;
    std::string held_;
    std::optional<char> service_;
};

constexpr int kMostReadsInARound = 8;

int Pending(int fd)
{
    int count = 0;
    ioctl(fd, FIONREAD, &count);
    return count;
}

// The daemon's end of a session, alone in a list with `others` beside it.
class Session
{
public:
    Session(int fd, int others) : list_(NewLList()), session_(new SocketSession)
    {
        session_->fd = fd;
        session_->buff = new char[kBufferSize];
        for (int other = 0; other < others; ++other)
            AddToList(list_, this);
        AddToList(list_, session_);
        RegisterClientConnect(session_);
    }
    ~Session()
    {
        if (session_ != nullptr)
            CloseClient(session_, list_);
        while (list_->next != nullptr)
            RemoveFromList(list_, list_->next->data);
        FreeLList(list_);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    // One read. False when the session has ended.
    bool Serve()
    {
        if (TcpServices(session_, list_) == 1)
            return true;
        session_ = nullptr;
        return false;
    }

private:
    llist *list_;
    SocketSession *session_;
};

void PrepareOnce()
{
    static const bool s_prepared = [] {
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        static Recorder s_upload('0', 0, -1);
        static Recorder s_settings('1', 1, -1);
        static Recorder s_firmware('2', 0, -1);
        static Recorder s_player('3', 1, 0);
        static Recorder s_modem('4', 0, -1);
        RegisterSessionService(wire::kSessionUpload, &s_upload);
        RegisterSessionService(wire::kSessionSettings, &s_settings);
        RegisterSessionService(wire::kSessionFirmware, &s_firmware);
        RegisterSessionService(wire::kSessionPlayer, &s_player);
        RegisterSessionService(wire::kSessionModem, &s_modem);
        return true;
    }();
    Require(s_prepared);
}

// Gives the daemon the bytes in one piece, in as many reads as its buffer asks for. False when the session
// ends.
bool Step(Session *session, Model *model, int client, int served, const std::string &bytes)
{
    Require(write(client, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    std::size_t given = 0;
    while (Pending(served) > 0) {
        // One round: reads go on while each gets all that there is room for.
        bool goesOn = true;
        bool filled = true;
        for (int reads = 0; goesOn && filled && reads < kMostReadsInARound; ++reads) {
            const std::size_t room = model->Room();
            if (room == 0 && reads > 0)
                break; // a full buffer ends the session at its next read
            const std::string read = bytes.substr(given, room);
            if (read.empty() && room > 0)
                break;
            given += read.size();
            filled = read.size() == room;
            goesOn = model->Read(read);
        }
        Require(session->Serve() == goesOn);
        Require(s_events == model->events);
        if (!goesOn)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    PrepareOnce();
    if (size == 0)
        return -1;
    const int others = data[0] & 3;
    g_serverStatus.upgradeFlag = (data[0] & 4) != 0 ? 1 : 0;
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    const ledboard::UniqueFd client(ends[1]);
    s_events.clear();
    Model model(others + 1, (data[0] & 4) != 0);
    {
        Session session(ends[0], others);
        std::string left(reinterpret_cast<const char *>(data) + 1, size - 1);
        bool goesOn = true;
        while (goesOn && left.size() >= 3) {
            const std::size_t count =
                1 + static_cast<unsigned>(static_cast<std::uint8_t>(left[0]) | (left[1] & 0x3F) << 8) % 12000;
            const std::string bytes = left.substr(2, count);
            left.erase(0, 2 + bytes.size());
            goesOn = Step(&session, &model, client.Get(), ends[0], bytes);
        }
        if (goesOn) { // the client hangs up
            shutdown(client.Get(), SHUT_WR);
            Require(!model.Read(""));
            Require(!session.Serve());
        }
        Require(s_events == model.events);
    }
    char reply[4096];
    std::string sent;
    for (ssize_t count; (count = recv(client.Get(), reply, sizeof reply, MSG_DONTWAIT)) > 0;)
        sent.append(reply, static_cast<std::size_t>(count));
    Require(sent == model.sent);
    return 0;
}
