// SPDX-License-Identifier: MIT
#include "serial_thread.h"

#include <fcntl.h>

void KSerialThread::set_serial_name(const char *name)
{
    serialName_ = name;
}

bool KSerialThread::Init()
{
    serialFd_ = open(serialName_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return serialFd_ >= 0;
}

int KSerialThread::LogIn()
{
    return 0;
}

int KSerialThread::LogOut()
{
    return 0;
}

int KSerialThread::DisposePacket(SocketSession *)
{
    return 1;
}
