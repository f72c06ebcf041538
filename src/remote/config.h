// SPDX-License-Identifier: MIT
// src/remote/config.h: the text of the remote-server configuration file (docs/protocols.md, "Files").
// Any thread.
#pragma once

#include "records/discovery_records.h"

#include <cstdio>
#include <string>

struct RemoteConfig {
    std::string ip;     // the server's address; empty: `domain` has its name
    std::string domain; // a host name
    std::string username;
    int port = 0; // as it stands in the file, which may be negative
};

// Reads from where the file stands. What it does not say stays empty.
RemoteConfig ReadRemoteConfig(std::FILE *file);

std::string RemoteConfigText(const wire::AddrParam &server); // the whole file for this server
