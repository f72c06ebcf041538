// SPDX-License-Identifier: MIT
// The device-information record: its setters, and the files that it is filled from.
#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/shell.h"
#include "discovery/search_services.h"
#include "records/setting_records.h"
#include "state/system_env.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstring>

KDevice g_device;

namespace
{

constexpr char kUnit[] = "src/search_services.c";

constexpr int kDefaultScreenSide = 128;       // pixels
constexpr std::size_t kSizeRecordOffset = 32; // fourth record of the settings file
constexpr std::uint32_t kSmallestData = 40;   // the file holds that record only when its data is longer than
                                              // this

// The device type that an identifier stands for, nothing when it is not a known one.
std::optional<std::int32_t> DeviceTypeOf(const char *id)
{
    struct Row {
        char family, generation;
        std::int32_t type;
    };
    constexpr Row kRows[] = {{'C', '1', 1}, {'C', '3', 0}, {'K', '1', 3}, {'K', '3', 2}};
    for (const Row &row : kRows) {
        if (id[0] == row.family && id[1] == row.generation)
            return row.type;
    }
    return std::nullopt;
}

} // namespace

wire::DeviceRecord KDevice::Copy() const
{
    const std::lock_guard lock(mutex_);
    return record_;
}

wire::DeviceInformation KDevice::Information() const
{
    return {.record = Copy(), .operations = {}};
}

void KDevice::setID(const char *id)
{
    const std::lock_guard lock(mutex_);
    std::memset(record_.id, 0, sizeof record_.id);
    std::memcpy(record_.id, id, strnlen(id, sizeof record_.id));
    record_.device_type = DeviceTypeOf(record_.id).value_or(record_.device_type);
}

void KDevice::setMac(const char *mac)
{
    const std::lock_guard lock(mutex_);
    std::memcpy(record_.mac, mac, sizeof record_.mac);
}

void KDevice::setIp(std::int32_t address)
{
    const std::lock_guard lock(mutex_);
    record_.ipaddr = address;
}

void KDevice::setMask(std::int32_t mask)
{
    const std::lock_guard lock(mutex_);
    record_.maskaddr = mask;
}

void KDevice::setGateway(std::int32_t gateway)
{
    const std::lock_guard lock(mutex_);
    record_.gwaddr = gateway;
}

void KDevice::setVersionNO(std::int32_t plexa, std::int32_t fpga)
{
    const std::lock_guard lock(mutex_);
    record_.plexa = plexa;
    record_.fpga = fpga;
}

void KDevice::setScreenSize(std::int32_t width, std::int32_t height)
{
    const std::lock_guard lock(mutex_);
    record_.width = width;
    record_.height = height;
}

void KDevice::setLight(std::int32_t)
{
    // QUIRK light-unset: the brightness is never stored and discovery always reports 0; the value would be
    // expected.
}

void KDevice::setDeviceType(std::int32_t type)
{
    const std::lock_guard lock(mutex_);
    record_.device_type = type;
}

void KDevice::setModelType(std::int32_t type)
{
    const std::lock_guard lock(mutex_);
    record_.model_type = type;
}

void KDevice::setBootScreenFlag(std::int32_t flag)
{
    const std::lock_guard lock(mutex_);
    record_.boot_screen_flag = flag;
}

void KDevice::setUDiskSize(std::int32_t size)
{
    const std::lock_guard lock(mutex_);
    record_.usb_size = size;
}

void KDevice::setDeviceName(const char *name)
{
    const std::lock_guard lock(mutex_);
    std::memset(record_.name, 0, sizeof record_.name);
    std::memcpy(record_.name, name, strnlen(name, sizeof record_.name - 1));
}

std::string getID()
{
    return ReadFileStart(paths::kDeviceId, wire::kDeviceIdSize - 1).value_or("");
}

void getVersionNO(std::int32_t *plexa, std::int32_t *fpga)
{
    *fpga = 0;
    const auto image = ReadFileStart(paths::kFpgaImage, 8);
    if (!image)
        Diag(kUnit, __func__, __LINE__, "open fpag file fail.");
    else if (image->size() < 8)
        Diag(kUnit, __func__, __LINE__, "read fpag file fail.");
    else
        *fpga = GetFPGAVersionNo();
    *plexa = GetPlexaVersionNo();
}

void getScreenSize(int *width, int *height)
{
    *width = kDefaultScreenSide;
    *height = kDefaultScreenSide;
    const auto start =
        ReadFileStart(paths::kBootSetting, kSizeRecordOffset + sizeof(wire::SettingRecord)).value_or("");
    const wire::Bytes bytes = wire::BytesAt(start.data(), start.size());
    const auto header = wire::Read<wire::SettingRecord>(bytes);
    const auto size = wire::Read<wire::SettingRecord>(bytes, kSizeRecordOffset);
    if (header && size && header->value > kSmallestData) {
        *width = static_cast<int>(size->value & 0xFFFF);
        *height = static_cast<int>(size->value >> 16);
    }
    std::printf("get screen size: (%d, %d)\n", *width, *height);
}

std::string getDeviceName()
{
    const std::string name = ReadFileStart(paths::kDeviceName, 249).value_or("");
    return name.empty() ? "Controller" : name;
}

int getModelType()
{
    int type = 1;
    const FilePointer file = OpenFile(paths::kBootSetting, "rb");
    wire::SettingRecord record;
    while (file && std::fread(&record, 1, sizeof record, file.get()) == sizeof record) {
        if (record.id == wire::kIdModelType)
            type = record.value == 0 ? 1 : 0;
    }
    return type;
}

int getBootScreenFlag()
{
    return OpenFile(paths::kBootScreen, "rb") ? 1 : 0;
}

void InitDeviceInfo()
{
    g_device.setID(getID().c_str());
    std::int32_t plexa = 0;
    std::int32_t fpga = 0;
    getVersionNO(&plexa, &fpga);
    g_device.setVersionNO(plexa, fpga);
    int width = 0;
    int height = 0;
    getScreenSize(&width, &height);
    g_device.setScreenSize(width, height);
    g_device.setDeviceName(getDeviceName().c_str());
    g_device.setModelType(getModelType());
    g_device.setBootScreenFlag(getBootScreenFlag());
}

void UpdateBroadcastPacket() {}

void WriteCustomPortToFile(int port)
{
    constexpr char kKey[] = "port=";
    {
        const FilePointer from = OpenFile(paths::kServerConfig, "r");
        const FilePointer to = from ? OpenFile(paths::kServerConfigTemporary, "w") : nullptr;
        if (!to)
            return;
        bool written = true;
        char part[256];
        bool atLineStart = true;
        bool isPortLine = false;
        while (std::fgets(part, sizeof part, from.get()) != nullptr) {
            if (atLineStart) {
                isPortLine = std::strncmp(part, kKey, sizeof kKey - 1) == 0;
                if (isPortLine)
                    written &= std::fprintf(to.get(), "port=%d\n", port) > 0;
            }
            if (!isPortLine)
                written &= std::fputs(part, to.get()) >= 0;
            atLineStart = std::strchr(part, '\n') != nullptr;
        }
        written &= std::fflush(to.get()) == 0 && fsync(fileno(to.get())) == 0;
        if (!written) { // the command then leaves the file as it is
            DiagErrno(kUnit, __func__, __LINE__, "write of the custom port: ");
            unlink(paths::kServerConfigTemporary);
        }
    }
    RunShell(std::string("cp ") + paths::kServerConfigTemporary + " " + paths::kServerConfig);
    SyncFile(paths::kServerConfig);
}
