// SPDX-License-Identifier: MIT
// src/base/io_buffer.h: a file that is read or written through stdio, with a buffer of the caller's size. An
// object belongs to one thread at a time.
#pragma once

#include <cstdio>

class KIoBuffer
{
public:
    explicit KIoBuffer(const char *name = nullptr); // at most 249 bytes of the name are kept
    virtual ~KIoBuffer();                           // closes the file
    KIoBuffer(const KIoBuffer &) = delete;
    KIoBuffer &operator=(const KIoBuffer &) = delete;

    // Opens `name`, close-on-exec; NULL stands for the name given before. 1 opened: a file that was open
    // before is closed. 0 failed with errno: it stays open.
    int Open(const char *name, const char *mode);

    // Gives the open file a buffer of `size` bytes; `mode` is that of setvbuf. With a size of 0 the file is
    // unbuffered in any mode. 1 done, 0 no memory or no open file.
    int SetBufferSize(int mode, unsigned size);

    int Read(char *buf, int n);             // items read; 0 without an open file
    int Write(const char *buf, int n);      // items written; fewer than n: failed (errno)
    int Flush();                            // 1 done or no open file, 0 failed (errno)
    int Seek(long long offset, int whence); // 0 done, -1 failed (errno)
    int Close();                            // 1 closed or no open file, 0 closed with an error (errno)
    bool IsOpen() const { return stream != nullptr; }

    // Has the kernel begin to write the file's data to the disk, and does not wait for it.
    void StartWriteBack();

private:
    char path[250];
    std::FILE *stream = nullptr;
    char *buffer = nullptr; // in use by the stream; owned
};
