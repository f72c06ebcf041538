// SPDX-License-Identifier: MIT
#include "base/io_buffer.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

template <std::size_t Size> void CopyName(char (&to)[Size], const char *name)
{
    std::memset(to, 0, Size);
    std::memcpy(to, name, strnlen(name, Size - 1));
}

} // namespace

KIoBuffer::KIoBuffer(const char *name)
{
    CopyName(path, name != nullptr ? name : "");
}

KIoBuffer::~KIoBuffer()
{
    KIoBuffer::Close();
}

int KIoBuffer::Open(const char *name, const char *mode)
{
    if (name != nullptr)
        CopyName(path, name);
    std::FILE *const opened = std::fopen(path, (std::string(mode) + "e").c_str());
    if (opened == nullptr)
        return 0;
    Close(); // only now: if the open failed, the old file would be lost
    stream = opened;
    return 1;
}

int KIoBuffer::SetBufferSize(int mode, unsigned size)
{
    if (stream == nullptr)
        return 0;
    char *block = nullptr;
    if (size > 0) {
        block = static_cast<char *>(std::malloc(size));
        if (block == nullptr)
            return 0;
    }
    std::setvbuf(stream, block, size > 0 ? mode : _IONBF, size);
    std::free(buffer); // only now: the stream used it until setvbuf
    buffer = block;
    return 1;
}

int KIoBuffer::Read(char *buf, int n)
{
    if (stream == nullptr || n < 0)
        return 0;
    return static_cast<int>(std::fread(buf, 1, static_cast<std::size_t>(n), stream));
}

int KIoBuffer::Write(const char *buf, int n)
{
    if (stream == nullptr || n < 0) {
        errno = EBADF;
        return 0;
    }
    return static_cast<int>(std::fwrite(buf, 1, static_cast<std::size_t>(n), stream));
}

int KIoBuffer::Flush()
{
    return stream == nullptr || std::fflush(stream) == 0 ? 1 : 0;
}

int KIoBuffer::Seek(long long offset, int whence)
{
    if (stream == nullptr) {
        errno = EBADF;
        return -1;
    }
    // QUIRK seek-32-bits: only the low 32 bits of the offset count; a reader would expect all of them.
    const auto low = static_cast<std::int32_t>(offset);
    return std::fseek(stream, low, whence);
}

int KIoBuffer::Close()
{
    if (stream == nullptr)
        return 1;
    // An fclose that succeeds must not hide a flush that failed.
    int stored = Flush();
    const int error = errno;
    if (std::fclose(stream) != 0)
        stored = 0;
    else
        errno = error;
    std::free(buffer); // the stream has used it until fclose
    stream = nullptr;
    buffer = nullptr;
    return stored;
}

void KIoBuffer::StartWriteBack()
{
    if (stream != nullptr)
        sync_file_range(fileno(stream), 0, 0, SYNC_FILE_RANGE_WRITE);
}
