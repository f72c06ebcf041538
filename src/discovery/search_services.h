// SPDX-License-Identifier: MIT
// src/discovery/search_services.h: discovery by UDP and the device-information record (docs/protocols.md,
// "Discovery").
#pragma once

#include "records/discovery_records.h"

#include <mutex>
#include <string>

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

// UDP socket with broadcast, packet information, non-blocking, close-on-exec. The descriptor, or -1 (logged).
int InitUdpSocket(const char *address, int port);

// Serve one datagram of port 8878 and of the custom port. What is not a valid request is dropped silently.
int DisposeUdpPacket(int fd);        // 1 answered, 0 dropped or nothing to say, -1 receive failed
int DisposeUdpPacketInFixed(int fd); // likewise; always answers the sender itself

void InitDeviceInfo();        // fills g_device from the board's files, once at start
void UpdateBroadcastPacket(); // does nothing

// The readers of InitDeviceInfo; each reads its file afresh.
std::string getID(); // at most 13 bytes, empty when the file is missing
void getVersionNO(std::int32_t *plexa, std::int32_t *fpga); // 0 for what is missing
void getScreenSize(int *width, int *height);                // pixels; 128 by 128 when the settings do not say
std::string getDeviceName(); // at most 249 bytes; "Controller" when the file is missing or empty
int getModelType();          // 0 or 1; 1 when the settings do not say
int getBootScreenFlag();     // 1 when the boot picture is there

// Stores the custom port for the next start in place of the "port=" line of the server configuration.
void WriteCustomPortToFile(int port);
