// SPDX-License-Identifier: MIT
#include "device_context.h"

#include "paths.h"

#include <cstring>
#include <mutex>

const char *const g_remoteServerFile = paths::kRemoteServer;

namespace
{

std::mutex s_fd_mutex; // address fields, privateFD, monitor, the monitor's fields, lockFlag

void LoadConfigFile(DeviceContext *, const char *) {}

void ConnectToServer(DeviceContext *) {}

void SetSocketFD(DeviceContext *context, int fd)
{
    const std::lock_guard lock(s_fd_mutex);
    context->privateFD = fd;
}

int GetSocketFD(DeviceContext *context)
{
    const std::lock_guard lock(s_fd_mutex);
    return context->privateFD;
}

void DisposePacket(DeviceContext *) {}

void SetMonitor(DeviceContext *context, MonitorSession *monitor)
{
    const std::lock_guard lock(s_fd_mutex);
    context->monitor = monitor;
}

MonitorSession *GetMonitor(DeviceContext *context)
{
    const std::lock_guard lock(s_fd_mutex);
    return context->monitor;
}

void Heartbeat() {}

void DisconnectFromServer(DeviceContext *context)
{
    const std::lock_guard lock(s_fd_mutex);
    context->domainFlag = 0;
    context->port = 0;
    std::memset(&context->addr, 0, sizeof context->addr);
    std::memset(context->username, 0, sizeof context->username);
}

void SetAddrParam(DeviceContext *context, const char *addr, int domainFlag, int port, const char *username)
{
    const std::lock_guard lock(s_fd_mutex);
    context->port = port;
    context->domainFlag = static_cast<short>(domainFlag);
    std::memset(&context->addr, 0, sizeof context->addr);
    std::memcpy(context->addr.domain, addr, strnlen(addr, sizeof context->addr.domain));
    std::memset(context->username, 0, sizeof context->username);
    std::memcpy(context->username, username, strnlen(username, sizeof context->username));
}

wire::AddrParam GetAddrParam(DeviceContext *context)
{
    wire::AddrParam result{};
    const std::lock_guard lock(s_fd_mutex);
    result.domainFlag = context->domainFlag;
    result.port = context->port;
    std::memcpy(result.addr, context->addr.domain, sizeof result.addr);
    std::memcpy(result.username, context->username, sizeof result.username);
    return result;
}

} // namespace

void InitDeviceContext(DeviceContext *context)
{
    context->LoadConfigFile = LoadConfigFile;
    context->ConnectToServer = ConnectToServer;
    context->SetSocketFD = SetSocketFD;
    context->GetSocketFD = GetSocketFD;
    context->DisposePacket = DisposePacket;
    context->SetMonitor = SetMonitor;
    context->GetMonitor = GetMonitor;
    context->Heartbeat = Heartbeat;
    context->DisconnectFromServer = DisconnectFromServer;
    context->SetAddrParam = SetAddrParam;
    context->GetAddrParam = GetAddrParam;
    SetSocketFD(context, -1);
}

MonitorSession CopyMonitor(const MonitorSession &slot)
{
    const std::lock_guard lock(s_fd_mutex);
    return slot;
}
