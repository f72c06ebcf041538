// SPDX-License-Identifier: MIT
// src/state/server_config.h: reads, creates and rewrites "/home/root/plexa_data/server_config"
// (docs/protocols.md, "Files"). Main thread, except ModemDialsAlways.
#pragma once

// Reads the custom port, which counts from kMinCustomPort to kMaxCustomPort; the last valid line wins. Reads
// whether there is a line "modem=always". A
// missing file is created with port 0. False when that failed; the custom port is then 0.
bool GetUserConfigInfo();

// Any thread. The line "modem=always" was in the file; false until it has been read.
bool ModemDialsAlways();

// Stores the custom port for the next start in place of the "port=" lines, and syncs the file.
void WriteCustomPortToFile(int port);
