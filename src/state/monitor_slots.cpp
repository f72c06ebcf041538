// SPDX-License-Identifier: MIT
#include "state/monitor_slots.h"

MonitorSlots *g_sessions = nullptr;
