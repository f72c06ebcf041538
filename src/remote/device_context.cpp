// SPDX-License-Identifier: MIT
#include "remote/device_context.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "records/remote_records.h"
#include "remote/client.h"
#include "remote/config.h"
#include "remote/connect.h"
#include "remote/connection.h"
#include "remote/digest.h"
#include "remote/received_file.h"

#include <string>

const char *const g_remoteServerFile = paths::kRemoteServer;

namespace
{

constexpr char kUnit[] = "src/device_context.cpp";
constexpr std::size_t kMaxConfig = 1024; // bytes of the file that are compared

// Of the one record that there is. Never deleted at the end of the process, which may come while connect
// threads run.
RemoteConnection *s_connection = nullptr;

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
    if (ReadFileStart(g_remoteServerFile, kMaxConfig) == text)
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
    SaveConfigToFile(s_connection->Address());
    StartConnectThread(s_connection);
}

void SetSocketFD(DeviceContext *, int fd)
{
    s_connection->SetSocket(fd);
}

int GetSocketFD(DeviceContext *)
{
    return s_connection->Socket();
}

void SetMonitor(DeviceContext *, MonitorSession *monitor)
{
    if (monitor == nullptr)
        remote::AbandonDigest();
    s_connection->SetMonitor(monitor);
}

MonitorSession *GetMonitor(DeviceContext *)
{
    return s_connection->Monitor();
}

void DisconnectFromServer(DeviceContext *context)
{
    if (context == nullptr)
        return;
    remote::AbandonDigest();
    remote::CloseReadTable();
    s_connection->Forget();
}

void SetAddrParam(DeviceContext *context, const char *addr, int domainFlag, int port, const char *username)
{
    if (context == nullptr || addr == nullptr || username == nullptr) {
        DiagErrno(kUnit, __func__, __LINE__, "param is error!");
        return;
    }
    s_connection->SetAddress(addr, domainFlag, port, username);
}

wire::AddrParam GetAddrParam(DeviceContext *context)
{
    return context == nullptr ? wire::AddrParam{} : s_connection->Address();
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
    s_connection = new RemoteConnection(context);
    s_connection->SetSocket(-1);
}

void DestroyDeviceContext(DeviceContext *context)
{
    remote::AbandonDigest();
    remote::CloseReadTable();
    remote::CloseReceivedFile(context);
    delete s_connection;
    s_connection = nullptr;
    delete[] context->buffer;
    delete context;
}

RemoteConnection &Connection()
{
    return *s_connection;
}

MonitorSession CopyMonitor(const MonitorSession &slot)
{
    return s_connection->CopySlot(slot);
}

void Reconnect(DeviceContext *context)
{
    remote::AbandonDigest();
    remote::CloseReadTable();
    s_connection->Lose();
    context->LoadConfigFile(context, g_remoteServerFile);
}

void DropConnection(DeviceContext *context)
{
    s_connection->SetQuickPace(false);
    Reconnect(context);
}
