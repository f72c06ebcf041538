// SPDX-License-Identifier: MIT
#include "state/server_status.h"

ServerStatus g_serverStatus;
