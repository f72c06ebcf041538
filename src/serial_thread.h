// SPDX-License-Identifier: MIT
// serial_thread.h — the setting service and its serial line to the FPGA (docs/protocols.md, "Settings").
#pragma once

#include <QThread>

#include <string>

struct SocketSession;

class KSerialThread : public QThread
{
public:
    using QThread::QThread;

    void set_serial_name(const char *name);
    bool Init();                               // false when the serial line cannot be opened
    int LogIn();                               // 0
    int LogOut();                              // 0
    int DisposePacket(SocketSession *session); // main thread; the result is not used

private:
    std::string serialName_;
    int serialFd_ = -1;
};
