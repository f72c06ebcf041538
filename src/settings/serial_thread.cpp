// SPDX-License-Identifier: MIT
#include "settings/serial_thread.h"

#include "base/diag.h"
#include "base/shell.h"
#include "base/threads.h"
#include "sessions/client_session.h"
#include "settings/serial_signals.h"
#include "settings/setting_commands.h"
#include "settings/setting_lock.h"
#include "state/services.h"

#include <cerrno>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr int kLogInLine = 2065;
constexpr int kLogOutLine = 2072;

constexpr SendPatience kPortPatience{.limit = std::chrono::seconds(5), .renewed = true};
constexpr SendPatience kSessionPatience{.limit = std::chrono::seconds(2), .renewed = false};

// The packet that a session's frame holds, nothing when the two lengths do not fit.
std::optional<wire::Bytes> PacketOf(const SocketSession &session)
{
    const wire::Bytes held = wire::BytesAt(session.buff, static_cast<std::size_t>(session.remain));
    const auto frame = wire::Read<wire::FrameHeader>(held);
    if (!frame || frame->length < sizeof *frame || frame->length > held.size())
        return std::nullopt;
    const wire::Bytes bytes = held.first(frame->length).subspan(sizeof *frame);
    const auto header = wire::Read<wire::SettingHeader>(bytes);
    if (!header || header->length == 0 || header->length >= bytes.size())
        return std::nullopt;
    return bytes.first(header->length + sizeof header->length);
}

} // namespace

KSerialThread::KSerialThread() : serial(KSerial::GetInstance()) {}

void KSerialThread::set_serial_name(const char *name)
{
    serialName_ = name;
}

bool KSerialThread::Init()
{
    InstallSignals();
    const SettingLock lock;
    if (!serial->Open(serialName_.c_str())) {
        std::fprintf(stderr, "open serial fail.\n");
        return false;
    }
    if (serial->SetCommConfig(115200, 8, 'n', 1) == -1)
        return false;
    serial->SetFlag(true);
    LoadCaches();
    SendSettings();
    std::printf("serial_thread init success.\n");
    port_.SocketInit();
    return true;
}

void KSerialThread::Serve()
{
    const SignalsBlocked blocked;
    start();
    StartSignalThread({
        .writeParameter = [this](unsigned id, unsigned value) { WriteSerial(id, value); },
        .toggleSlantLines = [this] { return PaintSlantToggle(); },
        .drawSlantLines =
            [this] {
                // With a client the service thread draws them, whenever it waited for a second.
                if (!HasClient())
                    timeout();
            },
    });
}

int KSerialThread::LogIn()
{
    Diag(kUnit, "LogIn", kLogInLine, "%s", "");
    const SettingLock lock;
    debugFlag = false;
    return 0;
}

int KSerialThread::LogOut()
{
    Diag(kUnit, "LogOut", kLogOutLine, "%s", "");
    ProbeUnlessDebugging();
    WriteSettingToSerial();
    return 0;
}

int KSerialThread::DisposePacket(SocketSession *session)
{
    const std::optional<wire::Bytes> bytes = PacketOf(*session);
    if (!bytes) {
        Diag(kUnit, __func__, __LINE__, "packet does not fit its frame, dropped.");
        return 0;
    }
    SettingAnswer answer;
    const int result = Handle(session, *bytes, &answer);
    if (!Deliver(&answer, session->fd, kSessionPatience)) {
        Diag(kUnit, __func__, __LINE__, "session does not take its answer, closed.");
        session->connectFlag = 0;
    }
    return result;
}

void KSerialThread::run()
{
    port_.Run();
}

void KSerialThread::ClientCame()
{
    const SettingLock lock;
    debugFlag = false;
}

void KSerialThread::ClientSilent()
{
    PaintSlantTimeOut();
}

void KSerialThread::ClientVanished()
{
    WriteCloseSmartSetting();
}

void KSerialThread::ClientLeft()
{
    CloseTransfers(this);
    ProbeUnlessDebugging();
}

int KSerialThread::DisposePacket(int fd, wire::Bytes bytes)
{
    SettingAnswer answer;
    const int result = Handle(this, bytes, &answer);
    return Deliver(&answer, fd, kPortPatience) ? result : 0;
}

int KSerialThread::Handle(Client client, wire::Bytes bytes, SettingAnswer *answer)
{
    const SettingLock lock;
    packet.fill(std::byte{0});
    std::memcpy(packet.data(), bytes.data(), bytes.size());
    switch (std::to_integer<std::uint8_t>(packet[1])) {
    case wire::kPacketCommand:
        return HandleCommand(client, answer);
    case wire::kPacketFrame:
        return HandleFrame();
    case wire::kPacketData:
        return HandleData();
    default:
        return 0;
    }
}

int KSerialThread::HandleCommand(Client client, SettingAnswer *answer)
{
    const std::uint32_t code = wire::Read<wire::SettingCommand>(packet)->code;
    std::printf("serial type cmd. data: %d.\n", static_cast<int>(code));
    return Commands(this, client, answer).Run(code);
}

void KSerialThread::SessionEnds(const SocketSession *session)
{
    CloseTransfers(session);
}

void KSerialThread::CloseTransfers(Client client)
{
    const SettingLock lock;
    for (Transfer *const transfer : {&luminanceFile, &bootScreenFile}) {
        if (transfer->client == client)
            *transfer = {};
    }
}

void KSerialThread::ProbeUnlessDebugging()
{
    bool debugging = false;
    {
        const SettingLock lock;
        debugging = debugFlag;
    }
    if (!debugging)
        ProbePlayer();
}

void KSerialThread::ProbePlayer()
{
    constexpr std::size_t kMostOfAnswer = 29;
    ReadShell("pidof plexa", kMostOfAnswer);
}

void KSerialThread::PaintSlantInit()
{
    const SettingLock lock;
    slant_.Init();
}

void KSerialThread::PaintSlantTimeOut()
{
    const SettingLock lock;
    slant_.Paint();
}

void KSerialThread::PaintSlantFinish()
{
    const SettingLock lock;
    slant_.Finish();
}

bool KSerialThread::PaintSlantToggle()
{
    const SettingLock lock;
    const bool on = !slant_.IsOn() && slant_.Init();
    if (!on)
        slant_.Finish();
    slant_.SwitchOn(on);
    return on;
}

void timeout()
{
    g_serial->PaintSlantTimeOut();
}
