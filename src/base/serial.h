// SPDX-License-Identifier: MIT
// src/base/serial.h: the one serial port, to the FPGA. Not locked: the setting service holds its own lock.
#pragma once

#include <termios.h>

#include <chrono>
#include <cstdio>
#include <string>

class KSerial
{
public:
    static KSerial *GetInstance(); // made on the first call, never destroyed

    // True when the device is open; false also for a NULL path, which changes nothing.
    bool Open(const char *path);
    // What SetCommConfig makes of a line's settings: raw mode. Unknown speeds give 38400, unknown data bits
    // 5, unknown parities none; 2 stop bits or 1.
    static termios LineSettings(termios settings, int baud, int dataBits, char parity, int stopBits);
    int SetCommConfig(int baud, int dataBits, char parity, int stopBits); // 0 done, -1 not a terminal
    int Read(char *buf, int len);                                         // bytes read, -1 closed or failed
    // One write of all bytes: the count taken, -1 closed or failed. A device that is gone (EIO, ENXIO) is
    // opened and configured again by a later call, at most once a second.
    int Write(char *buf, int len);
    int Close(); // 0 closed, -1 it was not open or failed

    void SetFlag(bool flag);
    bool GetFlag() const;
    bool IsLost() const; // the device is gone and was not closed by Close

private:
    struct CommConfig {
        int baud, dataBits;
        char parity;
        int stopBits;
    };
    void Trace(const char *buf, int len);
    bool Reopen();

    int fd = -1;
    std::string name;
    bool flag = false;
    std::FILE *trace = nullptr; // mirrors what is written, in hexadecimal; nothing sets it
    CommConfig config_{};
    bool configured_ = false;
    bool lost_ = false;
    std::chrono::steady_clock::time_point lastTry_;
};
