// SPDX-License-Identifier: MIT
// src/remote/config.h: the text of the remote-server configuration file (docs/protocols.md, "Files").
// Any thread.
#pragma once

#include "records/discovery_records.h"

#include <cstdio>
#include <string>

struct RemoteConfig {
    std::string ip; // not empty: the address; else `domain` is the server's name
    std::string domain;
    std::string username;
    int port = 0; // what the file's text says, which may be negative
};

RemoteConfig ReadRemoteConfig(std::FILE *file);
std::string RemoteConfigText(const wire::AddrParam &server);
