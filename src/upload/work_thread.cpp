// SPDX-License-Identifier: MIT
#include "upload/work_thread.h"

#include "base/diag.h"
#include "base/files.h"
#include "base/paths.h"
#include "base/safe_name.h"
#include "base/shell.h"
#include "common/unique_fd.h"
#include "player/server_witch_plexa.h"
#include "records/player_records.h"
#include "sessions/client_session.h"
#include "state/server_status.h"
#include "state/system_env.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/work_thread.cpp";
// The log lines of these numbers have no text: the number alone distinguishes them.
constexpr int kLogInLine = 2276;
constexpr int kProgramMessageLine = 2333;
constexpr int kLogOutLine = 2340;
constexpr int kEndMessageLine = 2364;

constexpr mode_t kFolderMode = 0700;
// The kernel starts to write to the disk after each of these steps, so that little is left for the sync at
// the end, during which the client waits.
constexpr std::size_t kWriteBackStep = 4U << 20U;

// The zero-terminated text at `offset`, at most `limit` bytes and at most to the end of the packet.
std::string TextAt(wire::Bytes bytes, std::size_t offset, std::size_t limit)
{
    if (offset >= bytes.size())
        return {};
    const auto *const start = reinterpret_cast<const char *>(bytes.data()) + offset;
    return {start, strnlen(start, std::min(limit, bytes.size() - offset))};
}

void MakeFolderIfMissing(const char *folder)
{
    if (!IsFolder(folder))
        mkdir(folder, kFolderMode);
}

void MakeInternalFolders()
{
    if (IsFolder(paths::kPlexaData))
        return;
    mkdir(paths::kPlexaData, kFolderMode);
    mkdir(paths::kInternalProgram, kFolderMode);
}

// A datagram socket for the kernel events of group 1, bound to this process's id; -1 failed (stderr).
int OpenKernelEvents(int protocol, int receiveBuffer)
{
    ledboard::UniqueFd events(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, protocol));
    if (!events.Valid()) {
        std::fprintf(stderr, "netlink, socket: %s, %d.\n", std::strerror(errno), errno);
        return -1;
    }
    if (receiveBuffer > 0)
        setsockopt(events.Get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<__u32>(getpid());
    address.nl_groups = 1;
    if (bind(events.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == -1) {
        std::fprintf(stderr, "netlink, bind: %s, %d.\n", std::strerror(errno), errno);
        return -1;
    }
    return events.Release();
}

// The record at the start of the packet. Fields that are missing at its end are read as zeros.
template <wire::Record T> T ReadPadded(const KDataPacket &packet)
{
    T record{};
    char bytes[sizeof record] = {};
    std::memcpy(bytes, &packet.ph_head, sizeof packet.ph_head);
    const std::size_t room = sizeof record - sizeof packet.ph_head;
    if (!packet.data.empty())
        std::memcpy(bytes + sizeof packet.ph_head, packet.data.data(), std::min(room, packet.data.size()));
    std::memcpy(&record, bytes, sizeof record);
    return record;
}

} // namespace

KWorkThread::KWorkThread(KSession *session, int descriptor) : socket(descriptor), owner(session)
{
    if (owner != nullptr)
        connect(this, &KWorkThread::Destroyes, owner, &KSession::Destroyes);
}

KWorkThread::~KWorkThread()
{
    file.Close();
    file2.Close();
    if (socket > 0) {
        shutdown(socket, SHUT_RDWR);
        socket = -1;
    }
}

int KWorkThread::LogIn()
{
    Diag(kUnit, __func__, kLogInLine, "%s", "");
    RunShell(std::string("rm ") + paths::kBootScreen);
    complete = 0;
    // Sessions that are still logged in must go on to see that their transfer has failed.
    if (sessions_++ == 0) {
        begun_ = false;
        spoiled_ = false;
    }
    scratch = std::make_unique<char[]>(wire::kSessionBufferSize);
    const std::int32_t size = CheckIsUDiskCard();
    g_serverStatus.uDiskSize = size;
    g_serverStatus.uDiskConnectFlag = size != 0 ? 1 : 0;
    uDiskMode = size != 0 ? 1 : 0;
    SendCodeToPlexa(wire::SS_CMD_RECV_PROGRAM);
    Diag(kUnit, __func__, kProgramMessageLine, "%s", "");
    std::printf("send message to plexa, SS_CMD_RECV_PROGRAM: %d\n", wire::SS_CMD_RECV_PROGRAM);
    return 0;
}

int KWorkThread::LogOut()
{
    Diag(kUnit, __func__, kLogOutLine, "%s", "");
    scratch.reset();
    --sessions_;
    if (complete == 0) {
        // A removed file that is still open would keep its space on the disk. If it belongs to a second
        // session, that session must not report success.
        file.Close();
        spoiled_ = true;
        const std::string command = std::string("rm -r ") + ProgramFolder() + "/*";
        RunShell(command);
        if (uDiskMode != 0)
            std::printf("%s\n", command.c_str());
    }
    SendCodeToPlexa(wire::SS_CMD_RECV_END);
    Diag(kUnit, __func__, kEndMessageLine, "%s", "");
    std::printf("send message to plexa, SS_CMD_RECV_END: %d\n", wire::SS_CMD_RECV_END);
    uDiskMode = 0;
    return 0;
}

int KWorkThread::DisposePacket(SocketSession *session)
{
    socket = session->fd;
    const std::optional<wire::Bytes> packet = FramedPacket(*session);
    if (!packet)
        return -1;
    const wire::Bytes bytes = packet->subspan(sizeof(wire::FrameHeader));
    const auto header = wire::Read<wire::KProtocolHeader>(bytes);
    if (!header || header->ph_length > bytes.size())
        return -1;
    return Route({*header, bytes.subspan(sizeof *header)});
}

int KWorkThread::DisposePacket(char *packet, int)
{
    if (packet == nullptr)
        return -1;
    // Nobody says how many bytes are there: the packet's own length has to be believed.
    const auto header =
        wire::Read<wire::KProtocolHeader>(wire::BytesAt(packet, sizeof(wire::KProtocolHeader)));
    const std::size_t size = std::max<std::size_t>(header->ph_length, sizeof *header);
    return Route({*header, wire::BytesAt(packet, size).subspan(sizeof *header)});
}

bool KWorkThread::IsUploadHeader(const wire::KProtocolHeader &header)
{
    return header.ph_descrite == wire::kUploadDescrite && header.ph_version == wire::kUploadVersion &&
           header.ph_types <= wire::kUploadCommand;
}

int KWorkThread::Route(const KDataPacket &packet)
{
    if (!IsUploadHeader(packet.ph_head))
        return -1;
    return packet.ph_head.ph_types == wire::kUploadCommand ? DisposeCommand(&packet) : DisposeData(&packet);
}

int KWorkThread::DisposeData(const KDataPacket *packet)
{
    // QUIRK data-dropped-when-busy: a packet that finds the file in use by another thread is dropped and
    // counts as stored; a reader would expect it to wait.
    const std::unique_lock lock(fileMutex, std::try_to_lock);
    if (!lock)
        return 0;
    const int written = WriteData(*packet, lock);
    // Asked after every write: a disk that was pulled out is why one failed, and one that succeeded may have
    // gone into memory only.
    if (uDiskMode != 0 && g_serverStatus.uDiskConnectFlag == 0) {
        std::printf("u disk remove .\n\n\n");
        return -1;
    }
    return written;
}

int KWorkThread::WriteData(const KDataPacket &packet, const std::unique_lock<QMutex> &)
{
    constexpr std::size_t kUnread = sizeof(wire::UploadDataHead) - sizeof(wire::KProtocolHeader);
    const int count = packet.ph_head.ph_length - static_cast<int>(sizeof(wire::UploadDataHead));
    if (count < 0 || packet.data.size() < kUnread + static_cast<std::size_t>(count))
        return -1;
    const auto *const bytes = reinterpret_cast<const char *>(packet.data.data()) + kUnread;
    if (!file.IsOpen()) {
        errno = EBADF;
        return WriteFailed();
    }
    if (file.Write(bytes, count) != count || file.Flush() == 0 || file2.Flush() == 0)
        return WriteFailed();
    sinceWriteBack_ += static_cast<std::size_t>(count);
    if (sinceWriteBack_ >= kWriteBackStep) {
        file.StartWriteBack();
        sinceWriteBack_ = 0;
    }
    return count;
}

int KWorkThread::WriteFailed()
{
    DiagErrno(kUnit, "DisposeData", __LINE__, "write fail, \"%s\": ", destination);
    spoiled_ = true;
    file.Close();
    return -1;
}

int KWorkThread::DisposeCommand(const KDataPacket *packet)
{
    if (packet->data.empty())
        return -1;
    const auto code = static_cast<unsigned char>(packet->data.front());
    std::printf("work_thread.cpp, type: %d\n", code);
    switch (code) {
    case wire::kUploadRequest:
        TakeUploadRequest(*packet);
        Upload();
        return Reply(wire::kUploadAnswer);
    case wire::kUploadAskReady:
        AskReady();
        return Reply(wire::kUploadAnswerReady);
    case wire::kUploadAskTransComplete:
        AskTransComplete();
        return Reply(wire::kUploadAnswerTransComplete);
    case wire::kUploadAskRetrans:
        AskRetransSequences();
        return Reply(wire::kUploadAnswerRetrans);
    case wire::kUploadAskDisconnect:
        AsNormalDisconnect();
        return Reply(wire::kUploadAnswerDisconnect);
    case wire::kUploadFileBegin:
        return BeginNamedFile(*packet);
    case wire::kUploadFileEnd:
        return EndFile();
    case wire::kUploadVideoStart:
        CheckVideoRepeatStart();
        return 0;
    case wire::kUploadVideoList:
        return AnswerVideoList(*packet);
    case wire::kUploadVideoEnd:
        CheckVideoRepeatEnd();
        return 0;
    default:
        return Reply(wire::kUploadAnswerUnknown);
    }
}

void KWorkThread::TakeUploadRequest(const KDataPacket &packet)
{
    const auto request = ReadPadded<wire::UploadRequest>(packet);
    std::memcpy(identifier, request.identifier, sizeof identifier);
    value_ = request.value;
    flag_ = request.flag;
    number_ = request.number;
    total = request.total;
    std::size_t offset = sizeof request - sizeof request.head.header;
    for (char(&text)[sizeof texts_[0]] : texts_) {
        const std::string taken = TextAt(packet.data, offset, packet.data.size());
        std::memset(text, 0, sizeof text);
        std::memcpy(text, taken.data(), std::min(taken.size(), sizeof text - 1));
        offset += taken.size() + 1;
    }
}

int KWorkThread::Upload()
{
    pending = 0;
    complete = 0;
    begun_ = false;
    spoiled_ = false;
    result = 1;
    return 1;
}

int KWorkThread::AskReady()
{
    result = 1;
    return 1;
}

int KWorkThread::AskTransComplete()
{
    std::printf("recv file ok.\n");
    result = 1;
    complete = 1;
    RunShell("sync");
    // The client relies on the result 1: the program is stored.
    if (!IsStored()) {
        Diag(kUnit, __func__, __LINE__, "the program is not on disk.");
        result = 0;
        complete = 0;
    }
    return 1;
}

// "sync" does not report failures. Those of this transfer are in spoiled_; syncfs reports data that the
// kernel took but could not write later.
bool KWorkThread::IsStored() const
{
    const ledboard::UniqueFd folder(open(ProgramFolder(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (uDiskMode != 0 && g_serverStatus.uDiskConnectFlag == 0)
        return false;
    if (!folder.Valid() && begun_)
        return false;
    if (folder.Valid() && syncfs(folder.Get()) == -1) {
        DiagErrno(kUnit, "AskTransComplete", __LINE__, "sync fail: ");
        return false;
    }
    return !spoiled_;
}

int KWorkThread::AskRetransSequences()
{
    result = received <= total ? 1 : 0;
    return 1;
}

int KWorkThread::AsNormalDisconnect()
{
    disconnect = 1;
    result = 0;
    return 1;
}

const char *KWorkThread::ProgramFolder() const
{
    return uDiskMode != 0 ? paths::kUsbProgram : paths::kInternalProgram;
}

int KWorkThread::BeginNamedFile(const KDataPacket &packet)
{
    if (EndFile() == -1) // a file that the client has not ended: it counts as ended here
        return -1;
    const std::string name = TextAt(packet.data, 1, wire::kUploadNameLimit);
    if (uDiskMode != 0)
        MakeFolderIfMissing(paths::kUsbProgram);
    else
        MakeInternalFolders();
    std::memset(destination, 0, sizeof destination);
    std::snprintf(destination, sizeof destination, "%s/%s", ProgramFolder(), name.c_str());
    if (!IsSafeName(name)) {
        std::printf("%s: %s.\n", PrintableName(destination).c_str(), kUnsafeNameText);
        return -1;
    }
    if (FileBegin() == 1)
        return 0;
    std::printf("%s: %s.\n", destination, std::strerror(errno));
    return -1;
}

int KWorkThread::FileBegin()
{
    std::string folder = destination;
    // QUIRK backslash-folder: a backslash ends the folder as well, so that "a\b" makes a folder "a" next to
    // the file "a\b"; only the slash would be expected to count.
    folder.resize(std::min(folder.find_last_of("/\\"), folder.size()));
    MakeFolders(folder);
    sinceWriteBack_ = 0;
    if (file.Open(destination, "wb") == 1) {
        begun_ = true;
        file.SetBufferSize(_IONBF, 0); // each packet is one write, so that its failure is that packet's
        return 1;
    }
    const int error = errno; // the caller logs it too
    std::fprintf(stderr, "%s: %s, errno: %d.\n", destination, std::strerror(error), error);
    errno = error;
    return 0;
}

int KWorkThread::FileEnd()
{
    EndFile();
    return 1;
}

int KWorkThread::EndFile()
{
    return file.Close() == 1 ? 0 : WriteFailed();
}

int KWorkThread::AnswerVideoList(const KDataPacket &packet)
{
    // The list ends where the header says, or with the bytes that are there.
    const int length = packet.ph_head.ph_length - static_cast<int>(sizeof(wire::UploadCommandHead));
    const int held = static_cast<int>(packet.data.size()) - 1;
    CheckVideoRepeat(reinterpret_cast<const char *>(packet.data.data()) + 1, std::min(length, held));
    return Reply(wire::kUploadAnswerVideoList);
}

int KWorkThread::InitNetlink()
{
    const int events = OpenKernelEvents(NETLINK_ROUTE, 0);
    if (events != -1)
        std::fprintf(stderr, "netlink init success.\n");
    return events;
}

int KWorkThread::InitUDiskMoniter()
{
    const int events = OpenKernelEvents(NETLINK_KOBJECT_UEVENT, 1024);
    if (events != -1)
        std::fprintf(stderr, "netlink u disk moniter success.\n");
    return events;
}
