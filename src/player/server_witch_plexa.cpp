// SPDX-License-Identifier: MIT
#include "player/server_witch_plexa.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/shell.h"
#include "records/player_records.h"
#include "sessions/client_session.h"
#include "sessions/session_service.h"
#include "state/device_record.h"
#include "state/server_status.h"
#include "state/system_env.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/server_witch_plexa";
constexpr int kEmptyNodeLine = 189;
constexpr int kUsbMountLine = 261;
constexpr int kUsbRemoveLine = 265;
constexpr int kRebootLine = 517;

constexpr std::uint32_t kUsbMounted = 1;

PlayerRequests *s_requests = nullptr;

// The player mounts and unmounts the disk, so it is the first to know.
void UpdateUSBState(std::uint32_t state)
{
    if (state == kUsbMounted) {
        g_serverStatus.uDiskConnectFlag = 1;
        g_serverStatus.uDiskSize = CheckIsUDiskCard();
        Diag(kUnit, __func__, kUsbMountLine, "usb mount.");
    } else {
        g_serverStatus.uDiskConnectFlag = 0;
        g_serverStatus.uDiskSize = 0;
        Diag(kUnit, __func__, kUsbRemoveLine, "usb remove.");
    }
    g_device.setUDiskSize(g_serverStatus.uDiskSize);
}

void HandleMessage(std::uint32_t code)
{
    switch (code) {
    case wire::SS_CMD_UPDATE_SETTING_FILE:
        s_requests->UpdateSettingFile();
        break;
    case wire::SS_CMD_REBOOT:
        s_requests->RebootBoard();
        break;
    default:
        break;
    }
}

void HandleMessage(std::uint32_t code, std::uint32_t value)
{
    switch (code) {
    case wire::SS_CMD_SCREEN_SIZE:
        s_requests->ChangeScreenSize(value);
        break;
    case wire::SS_CMD_BRIGHTNESS:
        s_requests->ChangeBrightness(value);
        break;
    case wire::SS_CMD_SCREEN_ON_OFF:
        s_requests->ScreenOnOff(value);
        break;
    case wire::SS_CMD_USB_STATE:
        UpdateUSBState(value);
        break;
    default:
        HandleMessage(code);
        break;
    }
}

class PlayerChannel : public SessionService
{
public:
    int DisposePacket(SocketSession *session) override { return DisposePlexaMessage(session); }
};

} // namespace

void RegisterPlayerRequests(PlayerRequests *requests)
{
    s_requests = requests;
}

SessionService *PlayerService()
{
    static PlayerChannel s_channel;
    return &s_channel;
}

void SendMessageToPlexa(const void *buf, unsigned len)
{
    const FoundSession player = FindSession(wire::kSessionPlayer);
    if (player.result == FoundSession::kEmptyNode)
        Diag(kUnit, __func__, kEmptyNodeLine, "error");
    if (player.result != FoundSession::kFound)
        return;
    const long sent = SendBytes(player.socket.Get(), wire::BytesAt(buf, len));
    std::printf("send message to plexa: %ld, fd: %d\n", sent, player.fd);
}

void SendCodeToPlexa(wire::PlayerCode code)
{
    const wire::PlayerMessage message{.length = sizeof(wire::PlayerMessage),
                                      .kind = wire::kPlayerKind,
                                      .code = code};
    SendMessageToPlexa(&message, sizeof message);
}

void SendCodeToPlexa(wire::PlayerCode code, std::uint32_t value)
{
    const wire::PlayerValueMessage message{.message = {.length = sizeof(wire::PlayerValueMessage),
                                                       .kind = wire::kPlayerKind,
                                                       .code = code},
                                           .value = value};
    SendMessageToPlexa(&message, sizeof message);
}

// QUIRK flags-inverted: the two test modes reach the player negated, 0 for on; the flag itself would be
// expected.
void SmartSettingFlag(bool on)
{
    SendCodeToPlexa(wire::SS_CMD_SMART_SETTING, on ? 0 : 1);
}

void NetworkError()
{
    SendCodeToPlexa(wire::SS_CMD_NETWORK_ERROR);
}

void PaintSlantLine(bool on)
{
    SendCodeToPlexa(wire::SS_CMD_SLANT_LINE, on ? 0 : 1);
}

int DisposePlexaMessage(SocketSession *session)
{
    if (session->buff == nullptr)
        return 0;
    // The codes without a value do not depend on the length word, so everything that is held counts.
    const wire::Bytes held = wire::BytesAt(session->buff, static_cast<std::size_t>(session->remain));
    const auto message = wire::Read<wire::PlayerMessage>(held);
    if (!message)
        return 1;
    // The session layer leaves a message of length 0 where it is and hands it out again with the next bytes.
    if (message->length == 0)
        std::memset(session->buff + offsetof(wire::PlayerMessage, code), 0, sizeof message->code);
    const auto valued = wire::Read<wire::PlayerValueMessage>(held);
    if (valued && message->length == sizeof *valued)
        HandleMessage(message->code, valued->value);
    else
        HandleMessage(message->code);
    return 1;
}

void Reboot()
{
    // Only a boot partition that can be written has something to write out.
    FilePointer settings = OpenFile(paths::kBootSetting, "r+b");
    if (settings) {
        settings.reset();
        RunShell("sync");
    }
    std::printf("%s::%d exec: %s.\n", __func__, kRebootLine, "reboot");
    RunShell("reboot");
}
