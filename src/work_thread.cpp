// SPDX-License-Identifier: MIT
#include "work_thread.h"

int KWorkThread::LogIn()
{
    return 0;
}

int KWorkThread::LogOut()
{
    return 0;
}

int KWorkThread::DisposePacket(SocketSession *)
{
    return -1;
}
