// SPDX-License-Identifier: MIT
// ip_config.h — the board's addressing: fixed or dynamic, the custom port, and changes to them. Main thread.
#pragma once

#include "discovery_records.h"

// Applies an address change. 0 applied (the sender gets no answer yet), 1 the same request came twice in a
// row: it is acknowledged and nothing is changed. A NULL request gives 0.
int UpdateSystemIP(const wire::UpdateLocalIP *request);

// Restarts the DHCP client on eth0.
void RestartDhcpClient();

int GetFixedStatus(); // 0 dynamic, 1 fixed address; any thread
void SetFixedStatus(int status);
int GetCustomPort(); // 0 none; any thread
void SetCustomPort(int port);
