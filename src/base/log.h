// SPDX-License-Identifier: MIT
// src/base/log.h: a log file of one line.
#pragma once

#include "base/io_buffer.h"

#include <QMutex>

class KLog : public KIoBuffer
{
public:
    explicit KLog(const char *path = nullptr); // without a path the object makes a name of its own
    int Open();                                // empties the file; 1 opened, 0 failed (errno)
    int Close();                               // 1 closed or not open, 0 closed with an error (errno)
    void SetLogfilePath(const char *path);     // at most 251 bytes; NULL is ignored

    // Writes `text` and a line end and returns the number of bytes written. Any thread, but only once for
    // each object: a second call waits for ever.
    int Write(const char *text);

private:
    char logPath[252] = {};
    QMutex mutex_;
    static unsigned object_totals_; // objects made without a path
};
