// SPDX-License-Identifier: MIT
// src/upload/work_thread.h: the upload service: program files from PC software (docs/protocols.md, "Upload").
//
// One object for the life of the process. All sessions of sub-type 0 share it: the file being received, the
// mode, the lists. Main thread.
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
#include <mutex>

struct SocketSession;

// A packet: its header, and a view of all bytes that really follow it in the caller's buffer, which may be
// more or fewer than ph_length says.
struct KDataPacket {
    wire::KProtocolHeader ph_head;
    wire::Bytes data; // from byte 15
};

class KWorkThread : public QThread, public SessionService
{
    Q_OBJECT

public:
    KWorkThread(KSession *session, int descriptor); // `session` may be NULL; it is not owned
    ~KWorkThread() override;

    int LogIn() override;  // 0
    int LogOut() override; // 0; removes the program's files if the transfer is not complete
    int DisposePacket(SocketSession *session) override; // a count or 0 done, -1 close the session
    // The same for a packet without a frame header. All of its ph_length bytes must be there; `length` is not
    // used.
    int DisposePacket(char *packet, int length);
    // The bytes written, 0 also if the packet was dropped, -1 close the session.
    int DisposeData(const KDataPacket *packet);
    int DisposeCommand(const KDataPacket *packet); // 0 done, -1 close the session

    // `packet` if it begins with the header of an upload packet and `code` is 1 to 27, otherwise NULL.
    char *IsPacket(char *packet, unsigned char code);
    // Builds the reply `code` in `buffer`, which holds wire::kUploadReplyRoom zero bytes, and returns it.
    // Resets the result that the next reply reports.
    char *GetPacket(char *buffer, unsigned char code);
    int TcpSend(char *buffer, int length); // the bytes sent, fewer than all or -1: failed (errno)

    int FileBegin();           // 1 `destination` is open for writing, 0 failed (stderr, errno)
    int FileEnd();             // 1; an error while closing makes the transfer fail at its end
    int Upload();              // 1
    int AskReady();            // 1
    int AskTransComplete();    // 1; waits until the program is on the disk
    int AskRetransSequences(); // 1
    int AsNormalDisconnect();  // 1
    int CheckUDiskSpace() { return 0; }

    // The video check. Start: removes all from the program folder but the videos. CheckVideoRepeat, for each
    // list of zero-terminated names that the client wants to have there: notes which of them the board holds,
    // for the reply. End: removes the videos that no list named.
    void CheckVideoRepeatStart();
    void CheckVideoRepeat(const char *payload, int length);
    void CheckVideoRepeatEnd();

    int InitNetlink();      // a bound socket of route events, -1 failed (stderr)
    int InitUDiskMoniter(); // a bound socket of kernel object events, -1 failed (stderr)

    // Parts of the interface that do nothing.
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
    int Route(const KDataPacket &packet); // as DisposePacket
    // The bytes written, -1 invalid or not stored. `lock` holds fileMutex.
    int WriteData(const KDataPacket &packet, const std::unique_lock<QMutex> &lock);
    int WriteFailed(); // logs errno, closes the file; -1
    void TakeUploadRequest(const KDataPacket &packet);
    int BeginNamedFile(const KDataPacket &packet);  // 0 open, -1 close the session (logged)
    int EndFile();                                  // 0 closed or not open, -1 not stored (logged)
    int AnswerVideoList(const KDataPacket &packet); // as Reply
    int Reply(unsigned char code);                  // 0 sent, -1 close the session (logged)
    wire::UploadRetransReply RetransReply() const;
    void PutVideoList(wire::Writer *writer);
    const char *ProgramFolder() const;
    bool IsStored() const; // all of the transfer is on the disk

    unsigned char disconnect = 0; // 1 after the client's normal disconnect
    int socket;                   // of the session whose packet came last
    QHostAddress localAddress_;
    QHostAddress peerAddress_;
    KSession *owner;
    unsigned char result = 0; // of the next reply
    // From the upload request.
    unsigned char identifier[16] = {};
    char texts_[3][250] = {};
    std::uint32_t value_ = 0;
    unsigned char flag_ = 0;
    std::uint16_t number_ = 0;
    std::uint32_t total = 0;
    KIoBuffer file;                  // the one being received
    KIoBuffer file2;                 // never opened
    QMutex fileMutex;                // guards writes to `file`
    std::uint32_t received = 0;      // stays 0: data packets do not count
    char destination[250] = {};      // the path of `file`
    std::unique_ptr<char[]> scratch; // wire::kSessionBufferSize bytes while a session is logged in
    std::uint32_t pending = 0;
    unsigned char complete = 0;  // 1: the client has reported the end of the transfer, and all is stored
    unsigned char uDiskMode = 0; // 1: the program goes to the USB disk
    // A character of these names is a byte of the file name.
    QList<QString> videos; // in the program folder when the check began
    QList<QString> kept;   // those of them that the client has named
    QList<QString> names;  // those that the last list named, for the reply

    std::size_t sinceWriteBack_ = 0; // bytes written since write-back was last started
    int sessions_ = 0;               // logged in
    bool begun_ = false;             // a file of this transfer was opened
    bool spoiled_ = false;           // part of this transfer could not be stored or was removed again
};
