// SPDX-License-Identifier: MIT
#include "firmware/version_thread.h"

#include "base/diag.h"
#include "base/paths.h"
#include "base/shell.h"
#include "records/firmware_records.h"
#include "sessions/client_session.h"
#include "state/device_record.h"
#include "state/server_status.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/version_thread.cpp";
constexpr int kRefusedType = -1;

std::string ArchivePath()
{
    return std::string(paths::kFirmware) + "/new_version.gz";
}

std::string UnpackFolder()
{
    return std::string(paths::kFirmware) + "/bin";
}

std::string InstallScript()
{
    return UnpackFolder() + "/update.sh";
}

wire::VersionReply MakeVersionReply(std::uint32_t state)
{
    const wire::DeviceRecord record = g_device.Copy();
    // QUIRK reply-code-0: the replies to the version, file and state commands have code 0, and only the reply
    // to the completion has its own; each would be expected to have its command's.
    return {.header = {}, .code = 0, .state = state, .plexa = record.plexa, .fpga = record.fpga};
}

// Unpacks the archive. False if that failed or the install script is missing.
bool Unpack()
{
    RunShell("mkdir " + UnpackFolder());
    const int status =
        RunShell("tar -zxvf " + ArchivePath() + " -C " + UnpackFolder() + " 1>&/dev/null 2>&1");
    // QUIRK cd-nowhere: a separate shell changes its folder and ends, so that the install script starts where
    // the daemon is; it would be expected to start in the unpack folder.
    RunShell("cd " + UnpackFolder());
    RunShell("chmod u+x " + InstallScript());
    struct stat script = {};
    return status == 0 && stat(InstallScript().c_str(), &script) == 0 && S_ISREG(script.st_mode);
}

// Has the next state query report that the upgrade failed, also after a restart.
void WriteFailedState()
{
    RunShell(std::string("mkdir -p ") + paths::kInfo);
    if (!ReplaceFile(paths::kUpgradeState, "unpack failed\n"))
        DiagErrno(kUnit, "DisposeCommand", __LINE__, "can't write %s: ", paths::kUpgradeState);
}

} // namespace

int KVersionThread::LogIn()
{
    Diag(kUnit, __func__, 512, "%s", "");
    g_serverStatus.upgradeFlag = 1;
    return 0;
}

int KVersionThread::LogOut()
{
    Diag(kUnit, __func__, 519, "%s", "");
    file.reset();
    g_serverStatus.upgradeFlag = 0;
    return 0;
}

int KVersionThread::DisposePacket(SocketSession *session)
{
    if (session->buff == nullptr)
        return -1;
    clientSocket = session->fd;
    const std::optional<wire::Bytes> packet = FramedPacket(*session);
    if (packet && packet->size() > sizeof(wire::FrameHeader)) {
        char *const command = session->buff + sizeof(wire::FrameHeader);
        if (DisposePaket(command, static_cast<int>(packet->size() - sizeof(wire::FrameHeader))) == 1)
            return 0;
    }
    Diag(kUnit, __func__, 503, "upgrade dispose packet error");
    return -1;
}

int KVersionThread::DisposePaket(char *packet, int length)
{
    const auto header =
        wire::Read<wire::FirmwareHeader>(wire::BytesAt(packet, static_cast<std::size_t>(length)));
    if (!header)
        return 0;
    switch (header->kind) {
    case wire::kFirmwareCommand:
        return DisposeCommand(packet, length);
    case wire::kFirmwareData:
        return DisposeData(packet + sizeof *header, length - static_cast<int>(sizeof *header));
    default:
        Diag(kUnit, __func__, 245, "------------------------------error---------------------");
        return 0;
    }
}

int KVersionThread::DisposeData(char *data, int n)
{
    if (n <= 0 || !file)
        return 0;
    const auto size = static_cast<std::size_t>(n);
    return std::fwrite(data, 1, size, file.get()) == size ? 1 : 0;
}

long KVersionThread::Send(const char *data, int n)
{
    return SendBytes(clientSocket, wire::BytesAt(data, static_cast<std::size_t>(n)));
}

int KVersionThread::DisposeCommand(char *packet, int length)
{
    const wire::Bytes bytes = wire::BytesAt(packet, static_cast<std::size_t>(length));
    const auto code = wire::Read<wire::U8>(bytes, sizeof(wire::FirmwareHeader));
    switch (code ? *code : 0xFF) {
    case wire::kAskVersionNumber:
        return AnswerVersion(bytes);
    case wire::kAskRecvNewVersionFile:
        return AnswerFile(bytes);
    case wire::kAskUpgradeComplete:
        return AnswerComplete(bytes);
    case wire::kAskUpgradeState:
        return AnswerState();
    default:
        std::printf("error!\n");
        return 0;
    }
}

template <wire::Record Reply> int KVersionThread::SendReply(Reply reply)
{
    reply.header = {.magic = wire::kFirmwareMagic, .length = sizeof reply, .kind = wire::kFirmwareCommand};
    if (Send(reinterpret_cast<const char *>(&reply), static_cast<int>(sizeof reply)) != sizeof reply) {
        std::printf("send command fail. %s: errno: %d.\n", std::strerror(errno), errno);
        return 0;
    }
    std::fprintf(stderr, "send packet length: %zu.\n", sizeof reply);
    return 1;
}

int KVersionThread::AnswerVersion(wire::Bytes packet)
{
    std::printf("kAskVersionNumber: %d\n", 260);
    if (packet.size() != sizeof(wire::VersionRequest)) {
        std::printf("%d, packet lens error.\n", 263);
        return 0;
    }
    type = wire::Read<wire::VersionRequest>(packet)->type;
    if (type == kRefusedType) {
        std::fprintf(stderr, "version thread %s: type error.\n", "DisposeCommand");
        return 0;
    }
    return SendReply(MakeVersionReply(0));
}

int KVersionThread::AnswerFile(wire::Bytes packet)
{
    std::printf("kAskRecvNewVersionFile: %d\n", 281);
    if (packet.size() != sizeof(wire::FirmwareFileRequest)) {
        std::printf("%d: packet lens error.\n", 284);
        return 0;
    }
    const auto request = *wire::Read<wire::FirmwareFileRequest>(packet);
    fileSize = request.fileSize;
    resumeOffset = request.resumeOffset;
    const std::string folder = paths::kFirmware;
    RunShell(std::string("rm -r ") + paths::kTemporary + "/*");
    RunShell("rm -rf " + folder + "/*;mkdir " + folder);
    file = OpenFile(ArchivePath(), "wb");
    if (!file) {
        std::fprintf(stderr, "open new_version.gz file fail. errno: %d.\n", errno);
        return 0;
    }
    std::setvbuf(file.get(), nullptr, _IONBF, 0); // so that a full disk fails the packet that finds it full
    wire::FirmwareFileReply reply{};
    if (SeekArchive()) {
        reply.opened = wire::kArchiveOpened;
        reply.openedToo = wire::kArchiveOpened;
    }
    return SendReply(reply);
}

// False, with the archive closed, if a seek to the resume offset fails.
bool KVersionThread::SeekArchive()
{
    if (std::fseek(file.get(), resumeOffset, SEEK_SET) != 0) {
        // QUIRK not-the-size: the line shows the reply's second result, which is still 0, as the file size;
        // the size that the client announced would be expected.
        std::printf("fseek new_version.gz fail, filesize: %d. errno: %d\n", 0, errno);
        file.reset();
        return false;
    }
    // QUIRK resume-from-0: the offset only decides whether the seek succeeds, and the archive is always
    // written from its start; writing would be expected to continue at the offset.
    std::rewind(file.get());
    return true;
}

int KVersionThread::SendComplete()
{
    return SendReply(
        wire::UpgradeCompleteReply{.header = {}, .code = wire::kAskUpgradeComplete, .result = 1});
}

int KVersionThread::AnswerComplete(wire::Bytes packet)
{
    std::printf("kAskUpgradeComplete: %d\n", 317);
    if (packet.size() != sizeof(wire::UpgradeCompleteRequest)) {
        std::printf("%d\n", 320);
        return 0;
    }
    file.reset();
    std::printf("%d\n", 328);
    // QUIRK complete-unconditional: the reply is 1 before anything is unpacked, even without an archive; an
    // answer that depends on the archive would be expected. The state command reports the outcome.
    if (SendComplete() == 0) {
        std::printf("%d\n", 331);
        return 0;
    }
    return Install();
}

// Returns only if the install script does not run.
int KVersionThread::Install()
{
    if (listenSocket >= 0)
        shutdown(listenSocket, SHUT_RDWR);
    upgrading = true;
    listenSocket = -1;
    if (!Unpack()) {
        WriteFailedState();
        Diag(kUnit, "DisposeCommand", __LINE__,
             "the firmware archive can't be unpacked or holds no update.sh.");
        upgrading = false;
        return 1;
    }
    freeSockets_();
    clientSocket = -1; // closed with the others
    ExecShell(InstallScript());
    const int error = errno;
    std::perror("execl: ");
    std::fprintf(stderr, "execl error, errno: %d.\n", error);
    return SendComplete();
}

int KVersionThread::AnswerState()
{
    if (OpenFile(paths::kUpgradeState, "rb")) {
        state = 0;
        std::remove(paths::kUpgradeState);
        std::fprintf(stderr, "upgrade fail.\n");
    } else {
        state = 1;
        std::printf("upgrade success.\n");
    }
    return SendReply(MakeVersionReply(state));
}
