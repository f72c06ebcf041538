// SPDX-License-Identifier: MIT
#include "settings/player_requests.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "records/setting_records.h"
#include "sessions/client_session.h"
#include "settings/serial_thread.h"
#include "state/device_info.h"
#include "state/device_record.h"
#include "state/services.h"
#include "state/tick.h"

#include <cstdio>

namespace
{

constexpr char kUnit[] = "src/server_witch_plexa";

// The player changes these while it runs. They alone are no reason to send all settings to the FPGA again.
bool ValueMayDiffer(std::uint32_t id)
{
    return id == wire::kIdScreenSize || id == wire::kIdMaxLuminance || id == wire::kIdLuminance;
}

// Compares record by record; an incomplete record at the end counts too.
bool AreEqual(std::FILE *one, std::FILE *other)
{
    for (;;) {
        wire::SettingRecord first{};
        wire::SettingRecord second{};
        const std::size_t firstBytes = std::fread(&first, 1, sizeof first, one);
        const std::size_t secondBytes = std::fread(&second, 1, sizeof second, other);
        if (firstBytes == 0 && secondBytes == 0)
            return true;
        if (firstBytes != secondBytes || first.id != second.id)
            return false;
        if (!ValueMayDiffer(first.id) && first.value != second.value)
            return false;
    }
}

bool PlayerCopyIsBooted()
{
    const FilePointer player = OpenFile(paths::kPlayerSetting, "rb");
    const FilePointer boot = OpenFile(paths::kBootSetting, "rb");
    return player && boot && AreEqual(player.get(), boot.get());
}

// Tick function: sessions are closed on the main thread only. The client would go on showing settings that
// are no longer in use.
void CloseSettingSession()
{
    RemoveFromTick(CloseSettingSession);
    switch (DropSession(wire::kSessionSettings)) {
    case FoundSession::kEmptyNode:
        Diag(kUnit, "UpdateSettingFile", 166, "error");
        break;
    case FoundSession::kFound:
        Diag(kUnit, "UpdateSettingFile", 162, "-------------------------------");
        break;
    case FoundSession::kNone:
        break;
    }
}

void SetScreenSize(std::uint32_t value)
{
    std::printf("[---g_serial change screen size: %d.---]\n", static_cast<int>(value));
    g_serial->WriteSerial(wire::kIdScreenSize, value);
}

void TakeNewSettings()
{
    if (PlayerCopyIsBooted()) {
        Diag(kUnit, "UpdateSettingFile", 135, "setting.ss file not has been to update.");
        return;
    }
    std::printf("cp /home/root/setting.ss /home/root/plexa_data/setting.ss; "
                "cp /home/root/setting.ss /boot/setting.ss; sync\n");
    g_serial->TakePlayerCopy();
    int width = 0;
    int height = 0;
    getScreenSize(&width, &height);
    g_device.setScreenSize(width, height);
    g_serial->WriteSettingToSerial();
    InsertToTickOrWait(CloseSettingSession);
}

void SwitchScreen(std::uint32_t value)
{
    constexpr unsigned kScreenState = 2;
    // QUIRK screen-inverted: the player sends 1 for off, the FPGA takes 1 for on; the same sense would be
    // expected.
    const bool off = value != 0;
    Diag(kUnit, "ScreenOnOff", off ? 318 : 315, off ? "scrren off" : "scrren on");
    g_serial->WriteFPGAState(kScreenState, off ? 0 : 1);
}

} // namespace

void SettingRequests::ChangeScreenSize(std::uint32_t value)
{
    if (g_serial != nullptr)
        queue_.Put(wire::SS_CMD_SCREEN_SIZE, [value] { SetScreenSize(value); });
}

void SettingRequests::ChangeBrightness(std::uint32_t value)
{
    if (g_serial != nullptr)
        queue_.Put(wire::SS_CMD_BRIGHTNESS, [value] { g_serial->WriteSerial(wire::kIdMaxLuminance, value); });
}

void SettingRequests::UpdateSettingFile()
{
    queue_.Put(wire::SS_CMD_UPDATE_SETTING_FILE, TakeNewSettings);
}

void SettingRequests::ScreenOnOff(std::uint32_t value)
{
    queue_.Put(wire::SS_CMD_SCREEN_ON_OFF, [value] { SwitchScreen(value); });
}

void SettingRequests::RebootBoard()
{
    queue_.Put(wire::SS_CMD_REBOOT, Reboot);
}
