// SPDX-License-Identifier: MIT
// src/upload/work_thread.h: the upload service: program files from PC software (docs/protocols.md, "Upload").
//
// One object for the life of the process. All sessions of sub-type 0 share it, and with it the file being
// received, the mode and the lists. Main thread.
#pragma once

#include "base/io_buffer.h"
#include "records/upload_records.h"
#include "sessions/session_service.h"
#include "upload/session_owner.h"

#include <QAbstractSocket>
#include <QHostAddress>
#include <QList>
#include <QMutex>
#include <QString>
#include <QThread>

#include <memory>

struct SocketSession;

// A packet where it lies: its header, and a view of all bytes that really follow it, which may be more or
// fewer than ph_length says.
struct KDataPacket {
    wire::KProtocolHeader ph_head;
    wire::Bytes data; // from byte 15
};

class KWorkThread : public QThread, public SessionService
{
    Q_OBJECT

public:
    KWorkThread(KSession *session, int descriptor); // the session may be NULL
    ~KWorkThread() override;

    int LogIn() override;  // 0
    int LogOut() override; // 0; removes what was received when it is not complete
    int DisposePacket(SocketSession *session) override; // a count or 0 done, -1 close the session
    int DisposePacket(char *packet, int length);        // the same for a bare packet, which holds all of its
                                                        // ph_length bytes; `length` is not used
    int DisposeData(const KDataPacket *packet);    // bytes written; 0 also when dropped; -1 close the session
    int DisposeCommand(const KDataPacket *packet); // 0 done, -1 close the session

    // NULL unless the header at `packet` is that of an upload packet and `code` lies in 1 to 27.
    char *IsPacket(char *packet, unsigned char code);
    // Builds the reply `code` in `buffer`, which holds wire::kUploadReplyRoom zero bytes; resets the result.
    char *GetPacket(char *buffer, unsigned char code);
    int TcpSend(char *buffer, int length); // bytes that one send took, -1 failed (errno)

    int FileBegin();           // 1 `destination` is open for writing, 0 failed (stderr, errno)
    int FileEnd();             // 1; an error while closing spoils the transfer
    int Upload();              // 1
    int AskReady();            // 1
    int AskTransComplete();    // 1; waits until the program is on disk
    int AskRetransSequences(); // 1
    int AsNormalDisconnect();  // 1
    int CheckUDiskSpace() { return 0; }

    void CheckVideoRepeatStart();
    void CheckVideoRepeat(const char *payload, int length);
    void CheckVideoRepeatEnd();

    int InitNetlink();      // a bound socket of route events, -1 failed (stderr)
    int InitUDiskMoniter(); // a bound socket of kernel object events, -1 failed (stderr)

    // Parts of the interface that have nothing to do.
    void SetSocket() {}
    void UdpSetAddress() {}
    void UdpSend() {}
    void UdpRecv() {}
    void TcpRecv() {}
    void Close() {}
    void TcpWorkThread() {}
    void GetDeviceAddress() {}
    void GetOneIp() {}
    void UdpWorkThread() {}
    void SetScreenPara() {}
    void SetModelType() {}
    void SetDeviceID() {}

Q_SIGNALS:
    void Destroyes(void *p, int t);
    void Finished();
    void InitTcp(int ip);

public Q_SLOTS:
    void DisplayError(QAbstractSocket::SocketError socket_error) { Q_UNUSED(socket_error) }
    void Finish() {}
    void UdpRecved() {}
    void TcpRecved() {}

protected:
    void run() override {}

private:
    static bool IsUploadHeader(const wire::KProtocolHeader &header);
    int Route(const KDataPacket &packet);
    int WriteData(const KDataPacket &packet);
    int WriteFailed();
    void TakeUploadRequest(const KDataPacket &packet);
    int BeginNamedFile(const KDataPacket &packet);
    int EndFile();
    int AnswerVideoList(const KDataPacket &packet);
    int Reply(unsigned char code);
    wire::UploadRetransReply RetransReply() const;
    void PutVideoList(wire::Writer *writer);
    const char *ProgramFolder() const;
    bool IsStored() const;

    unsigned char disconnect = 0;
    int socket;
    QHostAddress localAddress_;
    QHostAddress peerAddress_;
    KSession *owner;
    unsigned char result = 0;
    unsigned char identifier[16] = {};
    char texts_[3][250] = {};
    std::uint32_t value_ = 0;
    unsigned char flag_ = 0;
    std::uint16_t number_ = 0;
    std::uint32_t total = 0;
    KIoBuffer file;
    KIoBuffer file2;
    QMutex fileMutex; // guards writes to file
    std::uint32_t received = 0;
    char destination[250] = {};
    std::unique_ptr<char[]> scratch; // wire::kSessionBufferSize bytes
    std::uint32_t pending = 0;
    unsigned char complete = 0;
    unsigned char uDiskMode = 0;
    QList<QString> videos; // names hold one byte of the file name per character
    QList<QString> kept;
    QList<QString> names;

    std::size_t sinceWriteBack_ = 0; // bytes written since write-back was last begun
    int sessions_ = 0;               // logged in
    bool begun_ = false;             // a file of this transfer was opened
    bool spoiled_ = false;           // something of this transfer could not be stored or is gone again
};
