// SPDX-License-Identifier: MIT
#include "base/serial.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace
{

constexpr long kMaxTrace = 1048576; // bytes
constexpr std::chrono::seconds kReopenPause{1};

speed_t SpeedOf(int baud)
{
    switch (baud) {
    case 2400:
        return B2400;
    case 4800:
        return B4800;
    case 9600:
        return B9600;
    case 19200:
        return B19200;
    case 57600:
        return B57600;
    case 115200:
        return B115200;
    default:
        return B38400;
    }
}

// The size bits are clear, which means 5 data bits.
void SetDataBits(termios *settings, int dataBits)
{
    if (dataBits == 7)
        settings->c_cflag |= CS7;
    else if (dataBits == 8)
        settings->c_cflag |= CS8;
}

void SetParity(termios *settings, char parity)
{
    switch (parity) {
    case 'E':
    case 'e':
        settings->c_cflag |= PARENB;
        settings->c_cflag &= ~static_cast<tcflag_t>(PARODD);
        settings->c_iflag |= INPCK;
        break;
    case 'O':
    case 'o':
        settings->c_cflag |= PARENB | PARODD;
        settings->c_iflag |= INPCK;
        break;
    case 'S': // space parity: treated as none with one stop bit
    case 's':
        settings->c_cflag &= ~static_cast<tcflag_t>(PARENB | CSTOPB);
        break;
    default:
        settings->c_cflag &= ~static_cast<tcflag_t>(PARENB);
        settings->c_iflag &= ~static_cast<tcflag_t>(INPCK);
        break;
    }
}

// Called after SetParity, so that the number of stop bits overrides what parity 'S' has done.
void SetStopBits(termios *settings, int stopBits)
{
    if (stopBits == 2)
        settings->c_cflag |= CSTOPB;
    else
        settings->c_cflag &= ~static_cast<tcflag_t>(CSTOPB);
}

} // namespace

KSerial *KSerial::GetInstance()
{
    static auto *const s_instance = new KSerial;
    return s_instance;
}

bool KSerial::Open(const char *path)
{
    if (path == nullptr)
        return false;
    name = path;
    fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC); // O_NOCTTY: a hang-up must not signal the daemon
    lost_ = false;
    return fd >= 0;
}

termios KSerial::LineSettings(termios settings, int baud, int dataBits, char parity, int stopBits)
{
    cfmakeraw(&settings);
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE);
    settings.c_cflag |= CLOCAL | CREAD;
    cfsetispeed(&settings, SpeedOf(baud));
    cfsetospeed(&settings, SpeedOf(baud));
    SetDataBits(&settings, dataBits);
    SetParity(&settings, parity);
    SetStopBits(&settings, stopBits);
    settings.c_cc[VTIME] = 0; // a read waits for at least one byte, without a limit
    settings.c_cc[VMIN] = 1;
    return settings;
}

int KSerial::SetCommConfig(int baud, int dataBits, char parity, int stopBits)
{
    termios current{};
    if (tcgetattr(fd, &current) == -1)
        return -1;
    const termios settings = LineSettings(current, baud, dataBits, parity, stopBits);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &settings) == -1)
        return -1;
    config_ = {baud, dataBits, parity, stopBits};
    configured_ = true;
    return 0;
}

int KSerial::Read(char *buf, int len)
{
    if (fd < 0 || len < 0)
        return -1;
    return static_cast<int>(read(fd, buf, static_cast<std::size_t>(len)));
}

int KSerial::Write(char *buf, int len)
{
    if (len < 0 || (fd < 0 && !Reopen()))
        return -1;
    Trace(buf, len);
    const auto count = static_cast<int>(write(fd, buf, static_cast<std::size_t>(len)));
    // The driver has removed the device: this descriptor will never work again.
    if (count == -1 && (errno == EIO || errno == ENXIO)) {
        const int error = errno;
        Close();
        lost_ = true;
        lastTry_ = std::chrono::steady_clock::now();
        errno = error;
    }
    return count;
}

bool KSerial::Reopen()
{
    const auto now = std::chrono::steady_clock::now();
    if (!lost_ || now - lastTry_ < kReopenPause)
        return false;
    lastTry_ = now;
    const std::string path = name; // a copy: Open assigns to name
    const bool open = Open(path.c_str()) &&
                      (!configured_ ||
                       SetCommConfig(config_.baud, config_.dataBits, config_.parity, config_.stopBits) == 0);
    if (open)
        return true;
    Close(); // clears lost_
    lost_ = true;
    return false;
}

int KSerial::Close()
{
    lost_ = false;
    if (fd < 0)
        return fd;
    const int result = close(fd);
    fd = -1;
    return result;
}

void KSerial::Trace(const char *buf, int len)
{
    if (trace == nullptr)
        return;
    for (int index = 0; index < len; ++index)
        std::fprintf(trace, "%2x ", static_cast<std::uint8_t>(buf[index]));
    std::fputc('\n', trace);
    std::fflush(trace);
    if (std::ftell(trace) > kMaxTrace && ftruncate(fileno(trace), 0) == 0)
        std::rewind(trace);
}

void KSerial::SetFlag(bool value)
{
    flag = value;
}

bool KSerial::GetFlag() const
{
    return flag;
}

bool KSerial::IsLost() const
{
    return lost_;
}
