// SPDX-License-Identifier: MIT
// src/state/services.h: the long-lived service objects. Start-up sets each pointer once; they are never
// replaced or freed.
#pragma once

class KSerialThread;
class KVersionThread;
class KWorkThread;
struct DeviceContext;
class KThirdGeneration;

extern KSerialThread *g_serial;
extern KVersionThread *g_version;
extern KWorkThread *g_recvProgram;
extern DeviceContext *g_deviceContext;
extern KThirdGeneration *g_3GInfo;
