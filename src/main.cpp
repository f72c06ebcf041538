// SPDX-License-Identifier: MIT
// Start-up of the daemon: makes the services once, publishes them and hands the main thread to the work loop.
#include "base/diag.h"
#include "base/paths.h"
#include "firmware/version_thread.h"
#include "loop/heartbeat.h"
#include "loop/network.h"
#include "modem/third_generation.h"
#include "player/server_witch_plexa.h"
#include "records/session_records.h"
#include "remote/device_context.h"
#include "sessions/session_service.h"
#include "settings/player_requests.h"
#include "settings/serial_thread.h"
#include "state/device_info.h"
#include "state/services.h"
#include "upload/work_thread.h"

#include <csignal>

namespace
{

constexpr char kUnit[] = "src/main.cpp";
constexpr int kSerialInitLine = 35;
constexpr int kBasicObjectLine = 49;

// The setting service with its serial line open, or NULL (logged).
KSerialThread *MakeSettingService()
{
    auto *const serial = new KSerialThread;
    serial->set_serial_name(paths::kSerialDevice);
    if (serial->Init())
        return serial;
    Diag(kUnit, "main", kSerialInitLine, "serial init fail.");
    delete serial;
    return nullptr;
}

// Says which service a login of each sub-type gets, and who carries out the player's requests.
void RegisterServices()
{
    static SettingRequests s_requests;
    RegisterPlayerRequests(&s_requests);
    RegisterSessionService(wire::kSessionUpload, g_recvProgram);
    RegisterSessionService(wire::kSessionSettings, g_serial);
    RegisterSessionService(wire::kSessionFirmware, g_version);
    RegisterSessionService(wire::kSessionPlayer, PlayerService());
    RegisterSessionService(wire::kSessionModem, g_3GInfo);
}

} // namespace

// QUIRK exit-0: every failed start ends with status 0; a supervisor would expect another status and must take
// any exit for a failure.
int main()
{
    InitDiag();
    std::signal(SIGPIPE, SIG_IGN); // until the heartbeat catches it
    KSerialThread *const serial = MakeSettingService();
    if (serial == nullptr) {
        Diag(kUnit, __func__, kBasicObjectLine, "init basic object fail.");
        return 0;
    }
    g_serial = serial;
    g_version = new KVersionThread(FreeAllSocketResource);
    g_recvProgram = new KWorkThread(nullptr, -1);
    g_deviceContext = new DeviceContext{};
    g_3GInfo = new KThirdGeneration;
    RegisterServices();
    InitDeviceContext(g_deviceContext);
    InitDeviceInfo();
    StartHeartbeat();
    g_serial->Serve();
    g_3GInfo->Start();
    WorkLoop();
    g_3GInfo->Stop();
    return 0;
}
