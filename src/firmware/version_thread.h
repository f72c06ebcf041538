// SPDX-License-Identifier: MIT
// src/firmware/version_thread.h: the firmware upgrade service (docs/protocols.md, "Firmware"). Main thread.
// It also has a listener of its own with a thread (version_listener.cpp), which start-up does not start.
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
    // `freeSockets` closes every socket of the daemon. It is called just before the install script replaces
    // the process, so that the ports are free for the new daemon.
    explicit KVersionThread(std::function<void()> freeSockets) : freeSockets_(std::move(freeSockets)) {}

    int LogIn() override;                               // 0
    int LogOut() override;                              // 0
    int DisposePacket(SocketSession *session) override; // 0 done, -1 close the session

    // Packets without a frame header: `length` bytes that begin with the magic, which is not checked here.
    int DisposePaket(char *packet, int length); // 1 the command was answered or the data stored, otherwise 0
    int DisposeCommand(char *packet, int length); // 1 a reply was sent, otherwise 0
    int DisposeData(char *data, int n);           // 1 all n bytes are in the archive (n > 0), otherwise 0
    long Send(const char *data, int n);           // bytes sent to the client, -1 with errno

    // The listener: serves one client at a time on its own thread. Call SetAddress, Init, Start in this
    // order.
    void SetAddress(int listenAddress, int listenPort); // the address in network byte order
    int Init();                                         // 1 listening, 0 failed (logged)
    void Start();                                       // a detached thread; the object must outlive it
    void WorkThread(int client);            // serves a client until it is done, then closes the descriptor
    int Read(char *packet, int size) const; // the length of the client's next packet, -1 failed or too long

private:
    // Each is one command: 1 a reply was sent, otherwise 0.
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
    bool initialised = false; // the listener is set up
    std::atomic<int> listenSocket{-1};
    int clientSocket = -1; // gets the replies; owned by the session layer or by WorkThread
    int address = 0;       // of the listener, network byte order
    int port = 0;          // of the listener
    int type = 0;          // of the last version request
    int fileSize = 0;
    int resumeOffset = 0;
    FilePointer file; // the archive being received
    bool upgrading = false;
    int oldSocket = -1;      // the listening socket that the next successful Init shuts down
    unsigned char state = 0; // of the last state query: 1 success, 0 failure
};
