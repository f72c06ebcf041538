// SPDX-License-Identifier: MIT
// src/remote/received_file.h: the remote server's file commands. Main thread only; the functions that take a
// packet and return a bool are RemoteHandlers.
//
// Beside a file that is being received stands its reception table, a byte for each chunk that is stored, so
// that a transfer that broke off can be resumed. Neither passes through a buffer of this process: what the
// table claims, the kernel has.
#pragma once

#include "records/remote_records.h"

#include <optional>
#include <string>

struct DeviceContext;

namespace remote
{

bool CleanProgramBack2(DeviceContext *context, wire::Bytes packet);
bool GetFileFillTabled(DeviceContext *context, wire::Bytes packet);
bool CreateFile(DeviceContext *context, wire::Bytes packet);
bool OpenAndSeekFile(DeviceContext *context, wire::Bytes packet);
bool RecvFileData(DeviceContext *context, wire::Bytes packet);
bool CloseFile(DeviceContext *context, wire::Bytes packet);
bool RemoveProgramFiles(DeviceContext *context, wire::Bytes packet);

void CloseReceivedFile(DeviceContext *context); // the file and its table, which stays
void CloseReadTable();                          // the table that GetFileFillTabled is reading

// Runs the removal command for a name of the program folder.
void RemoveProgramFile(const DeviceContext *context, const std::string &name);

// The path of the file that a request names, in the program folder; nothing when there is no such folder yet
// or when the name may not be used (logged).
std::optional<std::string> ProgramPath(const DeviceContext *context, wire::Bytes packet);

// The start of a reply of `size` bytes that repeats the request's name.
wire::RemoteNamePacket NamedReply(wire::Bytes packet, std::size_t size, wire::RemoteReply reply);

} // namespace remote
