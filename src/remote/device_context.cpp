// SPDX-License-Identifier: MIT
#include "remote/device_context.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/shell.h"
#include "base/sockets.h"
#include "common/text_field.h"
#include "common/unique_fd.h"
#include "records/remote_records.h"
#include "remote/client.h"
#include "remote/config.h"
#include "remote/connect.h"
#include "remote/digest.h"
#include "remote/received_file.h"
#include "state/monitor_slots.h"
#include "state/tick.h"

#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>
#include <utility>

const char *const g_remoteServerFile = paths::kRemoteServer;

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr std::size_t kLongestConfig = 1024;

void LoadConfigFile(DeviceContext *context, const char *path)
{
    if (path == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "LoadConfigFile: filename is null!");
        return;
    }
    FilePointer file = OpenFile(path, "r");
    if (!file) {
        DiagErrno(kUnit, __func__, __LINE__, "can't open remote config file!");
        return;
    }
    const RemoteConfig config = ReadRemoteConfig(file.get());
    file.reset();
    const bool isName = config.ip.empty();
    context->SetAddrParam(context, (isName ? config.domain : config.ip).c_str(), isName ? 1 : 0, config.port,
                          config.username.c_str());
    context->ConnectToServer(context);
}

// Writes the file only when that changes it: a server that closes every connection must not wear out the
// flash.
void SaveConfigToFile(const wire::AddrParam &server)
{
    const std::string text = RemoteConfigText(server);
    if (ReadFileStart(g_remoteServerFile, kLongestConfig) == text)
        return;
    if (!ReplaceFile(g_remoteServerFile, text))
        DiagErrno(kUnit, __func__, __LINE__, "create remote server file fail!");
}

void ConnectToServer(DeviceContext *context)
{
    if (context == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is null!");
        return;
    }
    SaveConfigToFile(context->GetAddrParam(context));
    StartConnectThread(context);
}

void SetSocketFD(DeviceContext *context, int fd)
{
    const std::lock_guard lock(RemoteMutex());
    context->privateFD = fd;
}

int GetSocketFD(DeviceContext *context)
{
    const std::lock_guard lock(RemoteMutex());
    return context->privateFD;
}

// Takes the connection apart and returns the socket, which the caller closes. RemoteMutex() is held.
ledboard::UniqueFd TakeSocket(DeviceContext *context)
{
    if (context->monitor != nullptr) {
        context->monitor->valid = 0;
        context->monitor->fd = -1;
    }
    context->bufferIndex = 0;
    return ledboard::UniqueFd(std::exchange(context->privateFD, -1));
}

void SetMonitor(DeviceContext *context, MonitorSession *monitor)
{
    const std::lock_guard lock(RemoteMutex());
    if (monitor == nullptr) {
        remote::AbandonDigest();
        TakeSocket(context);
    }
    context->monitor = monitor;
    MonitorIsKnown();
}

MonitorSession *GetMonitor(DeviceContext *context)
{
    const std::lock_guard lock(RemoteMutex());
    return context->monitor;
}

void DisconnectFromServer(DeviceContext *context)
{
    if (context == nullptr)
        return;
    remote::AbandonDigest();
    remote::CloseReadTable();
    const std::lock_guard lock(RemoteMutex());
    // QUIRK lock-outlives-server: a lock that the server held stays; it would be expected to go, as it does
    // when the connection is lost.
    EndConnectThreads();
    RunShell(std::string("rm ") + g_remoteServerFile);
    RemoveFromTick(context->Heartbeat);
    TakeSocket(context);
    context->domainFlag = 0;
    context->port = 0;
    std::memset(&context->addr, 0, sizeof context->addr);
    std::memset(context->username, 0, sizeof context->username);
    SetConnectPace(true);
}

void SetAddrParam(DeviceContext *context, const char *addr, int domainFlag, int port, const char *username)
{
    if (context == nullptr || addr == nullptr || username == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is error!");
        return;
    }
    const std::lock_guard lock(RemoteMutex());
    context->port = port;
    context->domainFlag = static_cast<short>(domainFlag);
    ledboard::SetFieldText(context->addr.domain, ledboard::FieldText(addr, sizeof context->addr.domain));
    ledboard::SetFieldText(context->username, ledboard::FieldText(username, sizeof context->username));
}

wire::AddrParam GetAddrParam(DeviceContext *context)
{
    wire::AddrParam result{};
    if (context == nullptr)
        return result;
    const std::lock_guard lock(RemoteMutex());
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
    context->bufferIndex = 0;
    context->buffer = new char[wire::kRemoteBufferSize];
    context->lockFlag = 0;
    context->uDiskFlag = 0;
    context->programDir = nullptr;
    SetSocketFD(context, -1);
}

void DestroyDeviceContext(DeviceContext *context)
{
    remote::AbandonDigest();
    remote::CloseReadTable();
    remote::CloseReceivedFile(context);
    {
        const std::lock_guard lock(RemoteMutex());
        EndConnectThreads();
        TakeSocket(context);
    }
    WaitForConnectThreads();
    delete[] context->buffer;
    delete context;
}

MonitorSession CopyMonitor(const MonitorSession &slot)
{
    const std::lock_guard lock(RemoteMutex());
    return slot;
}

void Reconnect(DeviceContext *context)
{
    remote::AbandonDigest();
    remote::CloseReadTable();
    {
        const std::lock_guard lock(RemoteMutex());
        TakeSocket(context);
        context->lockFlag = 0;
    }
    context->LoadConfigFile(context, g_remoteServerFile);
}

void DropConnection(DeviceContext *context)
{
    {
        const std::lock_guard lock(RemoteMutex());
        SetConnectPace(false);
    }
    Reconnect(context);
}
