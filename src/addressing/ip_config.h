// SPDX-License-Identifier: MIT
// src/addressing/ip_config.h: changes between a fixed and a dynamic address and changes of the custom port
// (docs/protocols.md, "Discovery"). Main thread.
#pragma once

#include "records/discovery_records.h"

// Applies an address change. 0 applied, do not answer yet; 1 the request repeats the last one: acknowledge
// it, nothing was changed. 0 for NULL.
int UpdateSystemIP(const wire::UpdateLocalIP *request);

// Queues a restart of the DHCP client on eth0 and returns at once: the client's command blocks until it finds
// a server. At most one restart waits for the one that runs.
void RestartDhcpClient();
