// SPDX-License-Identifier: MIT
// src/settings/setting_transfer.h: the files that clients send to the setting service chunk by chunk
// (luminance file, boot screen), and the luminance file on its way back. The setting service holds its lock
// in all of it.
#pragma once

#include "records/setting_records.h"
#include "settings/setting_lock.h"
#include "settings/transfer_file.h"

#include <vector>

struct SettingAnswer;

// Who sends: a session, or the service itself for the client of port 8879. Only compared, never followed.
using SettingClient = const void *;

// What distinguishes the files.
struct SettingTransferKind {
    wire::SettingCode code;
    int openLine;    // printed if the file cannot be opened
    int commandLine; // printed for an unknown sub-command
    const char *(*choosePath)();
    void (*stored)(SettingAnswer *answer); // what follows once the file is stored
};
extern const SettingTransferKind kLuminanceTransfer;
extern const SettingTransferKind kBootScreenTransfer;

// One file on its way. Clients share it: a chunk of any client is appended. The old file stays until the end
// of the transfer puts the new one in its place (transfer_file.h).
class SettingTransfer
{
public:
    explicit SettingTransfer(const SettingTransferKind &kind) : kind_(kind) {}

    // Handles one packet: a sub-command (wire::ChunkCommand), then the chunk. 1 to go on, 0 to end the
    // connection: an unknown sub-command, or a chunk that could not be stored (logged). After such a chunk
    // nothing more of that client is stored until its end of the transfer, which answers that it failed.
    int Receive(const SettingLock &lock, SettingClient client, wire::Bytes argument, SettingAnswer *answer);

    // The client has left. The transfer that it began is forgotten, so that nobody else continues or ends it.
    void Abandon(const SettingLock &lock, SettingClient client);

private:
    int ReceiveChunk(SettingClient client, wire::Bytes chunk);
    int ReceiveEnd(SettingClient client, SettingAnswer *answer);
    bool Begin(SettingClient client);
    bool HasFailed(SettingClient client) const;
    void Forget();

    const SettingTransferKind &kind_;
    TransferFile file_;
    SettingClient client_ = nullptr;    // who began it
    std::vector<SettingClient> failed_; // who lost a chunk of theirs and has not ended the transfer yet
};

// After a power cut while the luminance file was copied from the USB disk: puts the whole copy in its place.
void RestoreLuminanceFile(const SettingLock &lock);

// Answers with the size of the luminance file and the file itself.
void AnswerLuminanceFile(const SettingLock &lock, SettingAnswer *answer);
