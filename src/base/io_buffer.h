// SPDX-License-Identifier: MIT
// src/base/io_buffer.h: a file written or read through stdio, with a buffer of the caller's size. One thread
// at a time.
#pragma once

#include <cstdio>

class KIoBuffer
{
public:
    explicit KIoBuffer(const char *name = nullptr); // at most 249 bytes of the name are kept
    virtual ~KIoBuffer();                           // closes the file
    KIoBuffer(const KIoBuffer &) = delete;
    KIoBuffer &operator=(const KIoBuffer &) = delete;

    // Opens `name`, or the name given before when it is NULL, close-on-exec; a file that was open is closed
    // when that worked. 1 opened, 0 failed (errno; the file that was open stays open).
    int Open(const char *name, const char *mode);

    // Gives the open file a buffer of `size` bytes, mode as for setvbuf; with a size of 0 it is unbuffered
    // whatever the mode. 1 done, 0 no memory or no open file.
    int SetBufferSize(int mode, unsigned size);

    int Read(char *buf, int n);             // items read; 0 without an open file
    int Write(const char *buf, int n);      // items written; fewer than n: failed (errno)
    int Flush();                            // 1 done or no open file, 0 failed (errno)
    int Seek(long long offset, int whence); // 0 done, -1 failed (errno)
    int Close();                            // 1 closed or no open file, 0 closed with an error (errno)
    bool IsOpen() const { return stream != nullptr; }

    // Has the kernel begin to write out what the file holds, without waiting for it.
    void StartWriteBack();

private:
    char path[250];
    std::FILE *stream = nullptr;
    char *buffer = nullptr; // what setvbuf was given; owned
};
