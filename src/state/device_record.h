// SPDX-License-Identifier: MIT
// src/state/device_record.h: the device-information record that discovery and the remote server get
// (docs/protocols.md, "Discovery").
#pragma once

#include "records/discovery_records.h"

#include <mutex>

// The record that discovery reports. Any thread; each call is atomic.
class KDevice
{
public:
    wire::DeviceRecord Copy() const;
    wire::DeviceInformation Information() const; // the record with its zero tail, as it goes out

    void setID(const char *id); // at most 14 bytes; device_type follows from the first two if they are known
    void setMac(const char *mac); // 17 bytes
    void setIp(std::int32_t address);
    void setMask(std::int32_t mask);       // host byte order
    void setGateway(std::int32_t gateway); // host byte order
    void setVersionNO(std::int32_t plexa, std::int32_t fpga);
    void setScreenSize(std::int32_t width, std::int32_t height); // pixels
    void setLight(std::int32_t light);                           // does nothing
    void setDeviceType(std::int32_t type);
    void setModelType(std::int32_t type);
    void setBootScreenFlag(std::int32_t flag);
    void setUDiskSize(std::int32_t size); // KiB
    void setDeviceName(const char *name); // at most 249 bytes

private:
    mutable std::mutex mutex_;
    wire::DeviceRecord record_{};
};

extern KDevice g_device;
