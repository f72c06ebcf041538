// SPDX-License-Identifier: MIT
#include "remote/device_context.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "remote/client.h"
#include "remote/config.h"
#include "remote/connect.h"
#include "state/services.h"

#include <cerrno>
#include <mutex>
#include <string>

const char *const g_remoteServerFile = paths::kRemoteServer;

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr std::size_t kMaxConfig = 1024; // bytes of the file that are compared

// Works for the one record that there is. Never deleted at the end of the process, which may come while
// connect threads run.
RemoteClient *s_client = nullptr;

// Held while the server's address changes or a connect starts: a retry, which has a thread of its own, must
// not bring back an address that the main thread has just replaced or forgotten. Taken before the
// connection's own.
std::mutex s_requests;

// Writes the file only if its content changes: a server that closes every connection must not wear out the
// flash.
void SaveConfigToFile(const wire::AddrParam &server)
{
    const std::string text = RemoteConfigText(server);
    if (ReadFileStart(g_remoteServerFile, kMaxConfig) == text)
        return;
    if (!ReplaceFile(g_remoteServerFile, text))
        DiagErrno(kUnit, __func__, __LINE__, "create remote server file fail!");
}

void SaveAndConnect()
{
    SaveConfigToFile(s_client->Connection().Address());
    StartConnectThread(&s_client->Connection());
}

void LoadAndConnect(const char *path)
{
    FilePointer file = OpenFile(path, "r");
    if (!file) {
        const bool isMissing = errno == ENOENT || errno == ENOTDIR;
        DiagErrno(kUnit, "LoadConfigFile", __LINE__, "can't open remote config file!");
        if (!isMissing)
            s_client->Connection().RetryLater();
        return;
    }
    const RemoteConfig config = ReadRemoteConfig(file.get());
    file.reset();
    const bool isName = config.ip.empty();
    s_client->Connection().SetAddress((isName ? config.domain : config.ip).c_str(), isName ? 1 : 0,
                                      config.port, config.username.c_str());
    SaveAndConnect();
}

void Retry()
{
    const std::lock_guard lock(s_requests);
    if (s_client->Connection().TakeRetry())
        LoadAndConnect(g_remoteServerFile);
}

void LoadConfigFile(DeviceContext *, const char *path)
{
    if (path == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "LoadConfigFile: filename is null!");
        return;
    }
    const std::lock_guard lock(s_requests);
    LoadAndConnect(path);
}

void ConnectToServer(DeviceContext *context)
{
    if (context == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is null!");
        return;
    }
    const std::lock_guard lock(s_requests);
    SaveAndConnect();
}

void SetSocketFD(DeviceContext *, int fd)
{
    s_client->Connection().SetSocket(fd);
}

int GetSocketFD(DeviceContext *)
{
    return s_client->Connection().Socket();
}

void DisposePacket(DeviceContext *)
{
    s_client->DisposePacket();
}

void SetMonitor(DeviceContext *, MonitorSession *monitor)
{
    s_client->SetMonitor(monitor);
}

MonitorSession *GetMonitor(DeviceContext *)
{
    return s_client->Connection().Monitor();
}

void Heartbeat()
{
    if (!s_client->HeartbeatIsDue())
        return;
    if (g_deviceContext == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is null!");
        return;
    }
    s_client->SendHeartbeat();
}

void DisconnectFromServer(DeviceContext *context)
{
    if (context == nullptr)
        return;
    const std::lock_guard lock(s_requests);
    s_client->Disconnect();
}

void SetAddrParam(DeviceContext *context, const char *addr, int domainFlag, int port, const char *username)
{
    if (context == nullptr || addr == nullptr || username == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is error!");
        return;
    }
    const std::lock_guard lock(s_requests);
    s_client->Connection().SetAddress(addr, domainFlag, port, username);
}

wire::AddrParam GetAddrParam(DeviceContext *context)
{
    return context == nullptr ? wire::AddrParam{} : s_client->Connection().Address();
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
    s_client = new RemoteClient(context);
    s_client->StartRetries(Retry);
}

void DestroyDeviceContext(DeviceContext *context)
{
    delete s_client;
    s_client = nullptr;
    delete context;
}

MonitorSession CopyMonitor(const MonitorSession &slot)
{
    return s_client->Connection().CopySlot(slot);
}
