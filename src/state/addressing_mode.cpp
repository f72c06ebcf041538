// SPDX-License-Identifier: MIT
#include "state/addressing_mode.h"

#include <atomic>

namespace
{

std::atomic<int> s_fixedStatus{0};
std::atomic<int> s_customPort{0};

} // namespace

int GetFixedStatus()
{
    return s_fixedStatus;
}

void SetFixedStatus(int status)
{
    s_fixedStatus = status;
}

int GetCustomPort()
{
    return s_customPort;
}

void SetCustomPort(int port)
{
    s_customPort = port;
}
