// SPDX-License-Identifier: MIT
// src/firmware/version_thread.h: the firmware upgrade service (docs/protocols.md, "Firmware"). Main thread,
// but for the own listener of version_listener.cpp, which start-up does not start.
#pragma once

#include "base/files.h"
#include "base/sockets.h"
#include "sessions/session_service.h"

#include <atomic>
#include <functional>
#include <utility>

struct SocketSession;

class KVersionThread : public SessionService
{
public:
    // `freeSockets` closes every socket of the daemon; called right before the install script replaces the
    // process, so that the script inherits none of its ports.
    explicit KVersionThread(std::function<void()> freeSockets) : freeSockets_(std::move(freeSockets)) {}

    int LogIn() override;                               // 0
    int LogOut() override;                              // 0
    int DisposePacket(SocketSession *session) override; // 0 done, -1 close the session

    // A packet without session framing: `length` bytes that begin with the magic, which is not looked at.
    int DisposeCommand(char *packet, int length); // 1 a reply went out, 0 none did
    int DisposePaket(char *packet, int length);   // 1 command answered or data stored, else 0
    int DisposeData(char *data, int n);           // 1 all n bytes are in the archive (n > 0), else 0
    long Send(const char *data, int n);           // bytes sent to the client, -1 with errno

    // The own listener: one client at a time on a thread of its own. Set the address, Init, Start.
    void SetAddress(int listenAddress, int listenPort); // address in network byte order
    int Init();                                         // 1 listening, 0 failed (logged)
    void Start();                                       // a detached thread; the object must outlive it
    void WorkThread(int client);            // serves one client until it is done and closes the descriptor
    int Read(char *packet, int size) const; // length of the client's next packet, -1 failed or too long

private:
    int AnswerVersion(wire::Bytes packet);
    int AnswerFile(wire::Bytes packet);
    int AnswerComplete(wire::Bytes packet);
    int AnswerState();
    template <wire::Record Reply> int SendReply(Reply reply);
    int SendComplete();
    bool SeekArchive();
    int Install();
    void AcceptLoop();

    std::function<void()> freeSockets_;
    bool initialised = false; // the own listener is set up
    std::atomic<int> listenSocket{-1};
    int clientSocket = -1; // replies go here; owned by the session layer or by WorkThread
    int address = 0;       // of the own listener, network byte order
    int port = 0;
    int type = 0; // of the last version request
    int fileSize = 0;
    int resumeOffset = 0;
    FilePointer file; // the archive being received
    bool upgrading = false;
    int oldSocket = -1;      // listening socket to shut down after the next successful Init
    unsigned char state = 0; // of the last state query: 1 success, 0 failure
};
