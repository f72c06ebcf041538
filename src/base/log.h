// SPDX-License-Identifier: MIT
// src/base/log.h: a log file of one line.
#pragma once

#include "base/io_buffer.h"

#include <QMutex>

class KLog : public KIoBuffer
{
public:
    explicit KLog(const char *path = nullptr); // without a path the object gets a name of its own
    int Open();                                // empties the file. 1 opened, 0 failed (errno)
    int Close();                               // 1 closed or not open, 0 closed with an error (errno)
    void SetLogfilePath(const char *path);     // at most 251 bytes; NULL is ignored

    // Writes `text` and a line end; the count written. Any thread, but once in the life of the object: a
    // second call waits for ever.
    int Write(const char *text);

private:
    char logPath[252] = {};
    QMutex mutex_;
    static unsigned object_totals_; // objects made without a path
};
