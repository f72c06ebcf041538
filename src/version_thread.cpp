// SPDX-License-Identifier: MIT
#include "version_thread.h"

#include "network.h"

int KVersionThread::LogIn()
{
    g_serverStatus.upgradeFlag = 1;
    return 0;
}

int KVersionThread::LogOut()
{
    g_serverStatus.upgradeFlag = 0;
    return 0;
}

int KVersionThread::DisposePacket(SocketSession *)
{
    return -1;
}
