// SPDX-License-Identifier: MIT
#include "settings/serial_thread.h"

#include "base/diag.h"
#include "base/threads.h"
#include "records/session_records.h"
#include "sessions/client_session.h"
#include "settings/luminance.h"
#include "settings/serial_signals.h"
#include "settings/setting_answer.h"
#include "settings/setting_copies.h"
#include "state/services.h"

#include <cstdio>

namespace
{

constexpr char kUnit[] = "src/serial_thread";
constexpr int kLogInLine = 2065;
constexpr int kLogOutLine = 2072;

// A client of the port only blocks the port; a session blocks the work loop.
constexpr SendPatience kPortPatience{.limit = std::chrono::seconds(5), .renewed = true};
constexpr SendPatience kSessionPatience{.limit = std::chrono::seconds(2), .renewed = false};

// The packet in a session's frame; nothing if the two lengths do not fit.
std::optional<wire::Bytes> PacketOf(const SocketSession &session)
{
    const std::optional<wire::Bytes> framed = FramedPacket(session);
    if (!framed)
        return std::nullopt;
    const wire::Bytes bytes = framed->subspan(sizeof(wire::FrameHeader));
    const auto header = wire::Read<wire::SettingHeader>(bytes);
    if (!header || header->length == 0 || header->length >= bytes.size())
        return std::nullopt;
    return bytes.first(header->length + sizeof header->length);
}

} // namespace

void KSerialThread::set_serial_name(const char *name)
{
    serialName_ = name;
}

bool KSerialThread::Init()
{
    InstallSignals();
    if (!StartLine())
        return false;
    std::printf("serial_thread init success.\n");
    port_.SocketInit();
    return true;
}

bool KSerialThread::StartLine()
{
    const SettingLock lock;
    if (!parts_.fpga.Open(lock, serialName_.c_str()))
        return false;
    RestoreLuminanceFile(lock);
    parts_.parameters.LoadCaches(lock);
    parts_.parameters.SendAll(lock);
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

void KSerialThread::run()
{
    port_.Run();
}

int KSerialThread::LogIn()
{
    Diag(kUnit, "LogIn", kLogInLine, "%s", "");
    const SettingLock lock;
    parts_.debugFlag = false;
    return 0;
}

int KSerialThread::LogOut()
{
    Diag(kUnit, "LogOut", kLogOutLine, "%s", "");
    ProbeUnlessDebugging();
    WriteSettingToSerial();
    return 0;
}

void KSerialThread::SessionEnds(const SocketSession *session)
{
    AbandonTransfers(session);
}

int KSerialThread::DisposePacket(SocketSession *session)
{
    const std::optional<wire::Bytes> packet = PacketOf(*session);
    if (!packet) {
        Diag(kUnit, __func__, __LINE__, "packet does not fit its frame, dropped.");
        return 0;
    }
    SettingAnswer answer;
    const int result = Handle(session, *packet, &answer);
    if (!Deliver(&answer, session->fd, kSessionPatience)) {
        Diag(kUnit, __func__, __LINE__, "session does not take its answer, closed.");
        session->connectFlag = 0;
    }
    return result;
}

void KSerialThread::ClientCame()
{
    const SettingLock lock;
    parts_.debugFlag = false;
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
    AbandonTransfers(this);
    ProbeUnlessDebugging();
}

int KSerialThread::DisposePacket(int fd, wire::Bytes packet)
{
    SettingAnswer answer;
    const int result = Handle(this, packet, &answer);
    return Deliver(&answer, fd, kPortPatience) ? result : 0;
}

int KSerialThread::Handle(SettingClient client, wire::Bytes packet, SettingAnswer *answer)
{
    const SettingLock lock;
    return HandleSettingPacket(lock, &parts_, client, packet, answer);
}

void KSerialThread::AbandonTransfers(SettingClient client)
{
    const SettingLock lock;
    parts_.luminanceFile.Abandon(lock, client);
    parts_.bootScreenFile.Abandon(lock, client);
}

void KSerialThread::ProbeUnlessDebugging()
{
    bool debugging = false;
    {
        const SettingLock lock;
        debugging = parts_.debugFlag;
    }
    if (!debugging)
        ProbePlayer();
}

int KSerialThread::WriteSettingToSerial()
{
    const SettingLock lock;
    return parts_.parameters.SendAll(lock);
}

void KSerialThread::WriteSerial(unsigned id, unsigned value)
{
    const SettingLock lock;
    parts_.parameters.Write(lock, id, value);
}

void KSerialThread::RTSaveSerialPara(unsigned id, unsigned value)
{
    const SettingLock lock;
    parts_.parameters.Save(lock, id, value);
}

int KSerialThread::WriteFPGAState(unsigned code, unsigned value)
{
    const SettingLock lock;
    return parts_.fpga.Send(lock, code, value);
}

void KSerialThread::WriteCloseSmartSetting()
{
    constexpr FrameTrace kTrace = {"serial writed: ", "%2x "};
    const SettingLock lock;
    parts_.fpga.SendTraced(lock, MakeFpgaFrame(kControlOpen, 0), kTrace);
}

void KSerialThread::TakePlayerCopy()
{
    const SettingLock lock;
    TakePlayerSettings(lock);
}

unsigned KSerialThread::GetScreenSize()
{
    const SettingLock lock;
    return FindSetting(lock, wire::kIdScreenSize).value_or(0);
}

unsigned KSerialThread::GetLuminance()
{
    const SettingLock lock;
    parts_.parameters.LoadCaches(lock);
    return parts_.parameters.MaxLuminance(lock);
}

unsigned KSerialThread::ComputeMaxLuminance()
{
    const SettingLock lock;
    return ComputeLuminanceOfFile(lock);
}

bool KSerialThread::ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n, unsigned m,
                                   unsigned g, unsigned k, unsigned f) const
{
    return RefreshPasses(FpgaFamily(), t, w, h, s, n, m, g, k, f);
}

bool KSerialThread::ComputeRefresh(unsigned t, unsigned w, unsigned h, unsigned s, unsigned n,
                                   unsigned m) const
{
    return RefreshPasses(t, w, h, s, n, m);
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
