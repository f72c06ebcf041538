// SPDX-License-Identifier: MIT
#include "ip_config.h"

#include "shell.h"

#include <atomic>

namespace
{

std::atomic<int> s_fixedStatus{0};
std::atomic<int> s_customPort{0};

} // namespace

int GetFixedStatus()
{
    return s_fixedStatus;
}

void SetFixedStatus(int status)
{
    s_fixedStatus = status;
}

int GetCustomPort()
{
    return s_customPort;
}

void SetCustomPort(int port)
{
    s_customPort = port;
}

int UpdateSystemIP(const wire::UpdateLocalIP *)
{
    return 0;
}

void RestartDhcpClient()
{
    RunShell("killall -9 udhcpc; udhcpc -R -b -p /var/run/udhcpc.eth0.pid -i eth0");
}
