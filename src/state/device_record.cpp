// SPDX-License-Identifier: MIT
#include "state/device_record.h"

#include <cstring>
#include <optional>

KDevice g_device;

namespace
{

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
