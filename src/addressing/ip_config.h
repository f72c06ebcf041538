// SPDX-License-Identifier: MIT
// src/addressing/ip_config.h: the board's addressing: fixed or dynamic, the custom port, and changes to them
// (docs/protocols.md, "Discovery"). Main thread.
#pragma once

#include "records/discovery_records.h"

// Applies an address change. 0 applied (the sender gets no answer yet), 1 the same request came twice in a
// row: it is acknowledged and nothing is changed. A NULL request gives 0.
int UpdateSystemIP(const wire::UpdateLocalIP *request);

// Has the DHCP client on eth0 restarted and returns at once: the client stays in the foreground for as long
// as it looks for a server. At most one restart waits behind the one that runs.
void RestartDhcpClient();
