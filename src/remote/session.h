// SPDX-License-Identifier: MIT
// src/remote/session.h: the commands that the remote server sends to a board, and what they work on: the
// program folder, the file being received, the reception table being read, the digest being computed.
//
// A command neither sends nor touches the connection: it returns an answer, which the client sends. Main
// thread only.
#pragma once

#include "records/remote_records.h"
#include "remote/answer.h"
#include "remote/digest.h"
#include "remote/program_list.h"
#include "remote/received_file.h"

#include <optional>
#include <string>

struct DeviceContext;

class RemoteSession
{
public:
    // Works on lockFlag, uDiskFlag, file, crc32, programDir and finishFlag of the record, which outlives this
    // object.
    explicit RemoteSession(DeviceContext *record) : record_(record), received_(record) {}

    // The commands. `packet` is complete (framing.h) and may go when the function returns.
    RemoteAnswer LogIn(wire::Bytes packet);
    RemoteAnswer UnlockDevice(wire::Bytes packet);
    RemoteAnswer SendFinish(wire::Bytes packet);
    RemoteAnswer GetProgramFileListed(wire::Bytes packet);
    RemoteAnswer GetVideoFilename(wire::Bytes packet);
    RemoteAnswer GetFileMD5(wire::Bytes packet); // of a large file: nothing to send, a digest is pending
    RemoteAnswer CreateFile(wire::Bytes packet);
    RemoteAnswer OpenAndSeekFile(wire::Bytes packet);
    RemoteAnswer RecvFileData(wire::Bytes packet);
    RemoteAnswer GetFileFillTabled(wire::Bytes packet);
    RemoteAnswer CloseFile(wire::Bytes packet);
    RemoteAnswer RemoveProgramFiles(wire::Bytes packet);
    RemoteAnswer RemoveNotVideoFile(wire::Bytes packet);
    RemoteAnswer CleanProgramBack2(wire::Bytes packet);

    // While a digest is pending no command may be given. Once its event is readable, FinishDigest returns the
    // answer; if the digest is not there yet, it stays pending and nothing is to be sent.
    bool DigestIsPending() const { return digest_.Pending(); }
    int DigestEvent() const { return digest_.Event(); }
    RemoteAnswer FinishDigest();

    // What cannot go on over another connection ends. A file being received stays open until its session is
    // unlocked or another file comes.
    void ConnectionEnded();

private:
    RemoteAnswer AskLockDevice();
    RemoteAnswer OpenForReception(wire::Bytes packet, const char *mode);

    // The path of the file that a request names; nothing if there is no program folder yet or the name may
    // not be used (logged).
    std::optional<std::string> ProgramPath(wire::Bytes packet) const;
    void RemoveProgramFile(const std::string &name) const;

    DeviceContext *record_;
    std::string programDir_; // the record points to it
    ProgramList programs_;   // as LogIn found them
    ReceivedFile received_;
    TableReader table_;
    DigestWorker digest_;
    wire::RemoteMd5Reply pendingReply_{}; // to the request whose digest is pending
};
