// SPDX-License-Identifier: MIT
// The replies of the upload service.
#include "base/diag.h"
#include "base/sockets.h"
#include "upload/work_thread.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{

constexpr char kUnit[] = "src/work_thread.cpp";
constexpr int kNoReplyLine = 576;
constexpr int kShortReplyLine = 583;
constexpr unsigned char kMinCode = 1;
constexpr unsigned char kMaxCode = 27;

wire::UploadCommandHead HeadOf(unsigned char code, std::size_t length)
{
    wire::UploadCommandHead head{};
    head.header.ph_descrite = wire::kUploadDescrite;
    head.header.ph_version = wire::kUploadVersion;
    head.header.ph_length = static_cast<std::uint16_t>(length);
    head.header.ph_types = wire::kUploadCommand;
    head.code = code;
    return head;
}

} // namespace

char *KWorkThread::IsPacket(char *packet, unsigned char code)
{
    if (packet == nullptr || code < kMinCode || code > kMaxCode)
        return nullptr;
    const auto header =
        wire::Read<wire::KProtocolHeader>(wire::BytesAt(packet, sizeof(wire::KProtocolHeader)));
    return IsUploadHeader(*header) ? packet : nullptr;
}

char *KWorkThread::GetPacket(char *buffer, unsigned char code)
{
    wire::Writer writer(std::as_writable_bytes(std::span(buffer, wire::kUploadReplyRoom)));
    switch (code) {
    case wire::kUploadAnswer:
    case wire::kUploadAnswerReady:
    case wire::kUploadAnswerTransComplete:
    case wire::kUploadAnswerDisconnect:
        writer.Put(wire::UploadResultReply{HeadOf(code, sizeof(wire::UploadResultReply)), result});
        break;
    case wire::kUploadAnswerRetrans:
        writer.Put(RetransReply());
        break;
    case wire::kUploadAnswerVideoList:
        PutVideoList(&writer);
        break;
    default:
        // QUIRK reply-27-without-code: the reply to an unknown code ends after the header; its code byte
        // would be expected to follow.
        writer.Put(HeadOf(code, sizeof(wire::KProtocolHeader)).header);
        return buffer;
    }
    result = 0;
    return buffer;
}

wire::UploadRetransReply KWorkThread::RetransReply() const
{
    wire::UploadRetransReply reply{};
    reply.head = HeadOf(wire::kUploadAnswerRetrans, sizeof reply);
    std::memcpy(reply.identifier, identifier, sizeof identifier);
    reply.received = result != 0 ? received : 0;
    return reply;
}

void KWorkThread::PutVideoList(wire::Writer *writer)
{
    if (!scratch) // another session has logged out and released it
        scratch = std::make_unique<char[]>(wire::kSessionBufferSize);
    std::memset(scratch.get(), 0, wire::kSessionBufferSize);
    wire::Writer list(std::as_writable_bytes(std::span(scratch.get(), wire::kSessionBufferSize)));
    for (const QString &name : std::as_const(names)) {
        const QByteArray bytes = name.toLatin1();
        const std::size_t size = static_cast<std::size_t>(bytes.size()) + 1;
        list.PutBytes(wire::BytesAt(bytes.constData(), size));
        std::printf("filelens: %zu\n", size);
    }
    const std::size_t length = sizeof(wire::UploadCommandHead) + list.Written().size();
    writer->Put(HeadOf(wire::kUploadAnswerVideoList, length));
    writer->PutBytes(list.Written());
    std::printf("packet lens: %zu, size: %zu\n", length, list.Written().size());
}

int KWorkThread::Reply(unsigned char code)
{
    char buffer[wire::kUploadReplyRoom] = {};
    if (GetPacket(buffer, code) == nullptr) {
        Diag(kUnit, "DisposeCommand", kNoReplyLine, "%s", "");
        return -1;
    }
    const auto header = wire::Read<wire::KProtocolHeader>(wire::BytesAt(buffer, sizeof buffer));
    const int length = header->ph_length;
    if (TcpSend(buffer, length) == length)
        return 0;
    DiagErrno(kUnit, "DisposeCommand", kShortReplyLine, "%s", "");
    return -1;
}

int KWorkThread::TcpSend(char *buffer, int length)
{
    errno = EAGAIN; // for the log: a short count, which sets no errno, means that the time limit was reached
    return static_cast<int>(SendBytes(socket, wire::BytesAt(buffer, static_cast<std::size_t>(length))));
}
