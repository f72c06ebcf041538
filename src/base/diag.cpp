// SPDX-License-Identifier: MIT
#include "base/diag.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace
{

// The message by itself: each line is then one printf, which no other thread's output can interrupt.
std::string Formatted(const char *format, std::va_list arguments)
{
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) // a conversion failed: better the bare format than no line
        return format;
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

} // namespace

void Diag(const char *unit, const char *function, int line, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const std::string message = Formatted(format, arguments);
    va_end(arguments);
    std::printf("[---%s::%s::%d---] %s\n", unit, function, line, message.c_str());
}

void DiagErrno(const char *unit, const char *function, int line, const char *format, ...)
{
    const int error = errno;
    std::va_list arguments;
    va_start(arguments, format);
    const std::string message = Formatted(format, arguments);
    va_end(arguments);
    std::printf("[---%s::%s::%d---] %s %s, %d.\n", unit, function, line, message.c_str(),
                std::strerror(error), error);
    errno = error;
}

void InitDiag()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}
