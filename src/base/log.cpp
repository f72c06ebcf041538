// SPDX-License-Identifier: MIT
#include "base/log.h"

#include <cstring>
#include <string>

unsigned KLog::object_totals_ = 0;

KLog::KLog(const char *name)
{
    if (name != nullptr) {
        SetLogfilePath(name);
        return;
    }
    // QUIRK log-name-raw-byte: the number of the object is in the name as a raw byte, so that the name of the
    // first one, whose byte is 0, ends at "c:/log"; a digit would be expected.
    const std::string own = std::string("c:/log") + static_cast<char>(object_totals_++) + ".log";
    SetLogfilePath(own.c_str());
}

int KLog::Open()
{
    if (KIoBuffer::Open(logPath, "w") == 0)
        return 0;
    SetBufferSize(0, 0);
    return 1;
}

int KLog::Close()
{
    return KIoBuffer::Close();
}

void KLog::SetLogfilePath(const char *name)
{
    if (name == nullptr)
        return;
    std::memset(logPath, 0, sizeof logPath);
    std::memcpy(logPath, name, strnlen(name, sizeof logPath - 1));
}

int KLog::Write(const char *text)
{
    // QUIRK log-writes-once: the mutex is never released, so that a second call waits for ever; a release at
    // the end would be expected.
    mutex_.lock();
    const std::string line = std::string(text) + "\n";
    return KIoBuffer::Write(line.c_str(), static_cast<int>(line.size()));
}
