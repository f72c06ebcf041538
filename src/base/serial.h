// SPDX-License-Identifier: MIT
// src/base/serial.h: the serial port to the FPGA, of which there is one. It has no lock: the setting service
// calls it under its own.
#pragma once

#include <termios.h>

#include <chrono>
#include <cstdio>
#include <string>

class KSerial
{
public:
    static KSerial *GetInstance(); // made by the first call, never destroyed

    bool Open(const char *path); // false: not open (errno); a NULL path changes nothing
    // The settings that SetCommConfig applies, made from those that the line has: raw mode. An unknown speed
    // gives 38400, other data bits than 7 and 8 give 5, an unknown parity gives none, and other stop bits
    // than 2 give 1. For other lines too.
    static termios LineSettings(termios settings, int baud, int dataBits, char parity, int stopBits);
    int SetCommConfig(int baud, int dataBits, char parity, int stopBits); // 0 done, -1 not a terminal
    int Read(char *buf, int len);                                         // bytes read, -1 closed or failed
    // One write of all bytes; returns the number written, or -1 if the port is closed or the write failed. A
    // device that is gone (EIO, ENXIO) is closed, and a later call opens and configures it again, at most
    // once a second.
    int Write(char *buf, int len);
    int Close(); // 0 closed, -1 failed or not open

    void SetFlag(bool flag); // kept for callers; the port does not use it
    bool GetFlag() const;
    bool IsLost() const; // the device is gone, and Close was not called

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
    std::FILE *trace = nullptr; // gets what is written, in hexadecimal; for debugging, never set
    CommConfig config_{};
    bool configured_ = false;
    bool lost_ = false;
    std::chrono::steady_clock::time_point lastTry_;
};
