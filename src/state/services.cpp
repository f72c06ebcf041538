// SPDX-License-Identifier: MIT
#include "state/services.h"

KSerialThread *g_serial = nullptr;
KVersionThread *g_version = nullptr;
KWorkThread *g_recvProgram = nullptr;
DeviceContext *g_deviceContext = nullptr;
KThirdGeneration *g_3GInfo = nullptr;
