// SPDX-License-Identifier: MIT
#include "sessions/upload_session.h"

#include "common/pc/text.h"
#include "common/pc/verb_error.h"
#include "common/unique_fd.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>

namespace ledboard
{

namespace
{

constexpr std::size_t kFramesPerSend = 16; // few system calls, so that they do not slow down a fast network
constexpr char kFolderMaker[] = "ledboard-video-check";

wire::KProtocolHeader UploadHeader(wire::UploadType type, std::size_t length)
{
    wire::KProtocolHeader header{};
    header.ph_descrite = wire::kUploadDescrite;
    header.ph_version = wire::kUploadVersion;
    header.ph_length = static_cast<std::uint16_t>(length);
    header.ph_types = type;
    return header;
}

template <typename T> void Append(std::vector<std::byte> *bytes, const T &record)
{
    const wire::Bytes added = wire::BytesOf(record);
    bytes->insert(bytes->end(), added.begin(), added.end());
}

void AppendText(std::vector<std::byte> *bytes, const std::string &text)
{
    const wire::Bytes added = wire::BytesAt(text.c_str(), text.size() + 1);
    bytes->insert(bytes->end(), added.begin(), added.end());
}

// What follows the code in an upload request.
std::vector<std::byte> UploadRequestPayload(const std::string &program, std::size_t files)
{
    constexpr std::size_t kTextRoom = 249;
    wire::UploadRequest request{};
    std::random_device random;
    for (wire::U8 &byte : request.identifier)
        byte = static_cast<wire::U8>(random());
    request.total = static_cast<std::uint32_t>(files);
    std::vector<std::byte> bytes;
    Append(&bytes, request);
    bytes.erase(bytes.begin(), bytes.begin() + sizeof request.head);
    AppendText(&bytes, program.substr(0, kTextRoom));
    AppendText(&bytes, "");
    AppendText(&bytes, "");
    return bytes;
}

// A file of this PC, read from start to end.
class FileReader
{
public:
    explicit FileReader(const ProgramFile &file)
        : name_(ForTerminal(file.name)), left_(file.size), fd_(open(file.path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (fd_.Get() < 0)
            throw SystemError("cannot open '" + name_ + "'", errno);
    }

    std::uint64_t Left() const { return left_; }

    void Fill(wire::MutableBytes bytes)
    {
        left_ -= bytes.size();
        while (!bytes.empty()) {
            const ssize_t count = read(fd_.Get(), bytes.data(), bytes.size());
            if (count < 0 && errno != EINTR)
                throw SystemError("cannot read '" + name_ + "'", errno);
            if (count == 0)
                throw VerbError(ExitStatus::kFailed, "'" + name_ + "' became shorter");
            bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
    }

private:
    std::string name_;
    std::uint64_t left_;
    UniqueFd fd_;
};

// Appends one frame of file data. Returns the number of the file's bytes in it.
std::size_t AppendData(std::vector<std::byte> *bytes, FileReader *file)
{
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(file->Left(), wire::kUploadDataRoom));
    const std::size_t length = sizeof(wire::UploadDataHead) + size;
    wire::FrameHeader frame{};
    frame.length = static_cast<std::uint32_t>(sizeof frame + length);
    Append(bytes, frame);
    Append(bytes, wire::UploadDataHead{UploadHeader(wire::kUploadFileData, length), 0U});
    bytes->resize(bytes->size() + size);
    file->Fill(std::span(*bytes).last(size));
    return size;
}

// The names in groups, each of which fits into one frame.
std::vector<std::vector<std::byte>> ListPayloads(const std::vector<std::string> &names)
{
    std::vector<std::vector<std::byte>> payloads;
    for (const std::string &name : names) {
        if (payloads.empty() || payloads.back().size() + name.size() + 1 > wire::kUploadListRoom)
            payloads.emplace_back();
        AppendText(&payloads.back(), name);
    }
    return payloads;
}

} // namespace

const char *DescribeState(BoardState state)
{
    switch (state) {
    case BoardState::kUntouched:
        return "nothing on the board has changed";
    case BoardState::kMayBeEmptied:
        return "the board may have accepted the login, and then it empties its program folder; "
               "repeat the upload";
    case BoardState::kIncomplete:
        return "the board has no complete program now: "
               "it empties its program folder when it notices the end of the session, within 42 seconds; "
               "repeat the upload with --all, because part of a video may be left if the board itself went "
               "down";
    case BoardState::kUnknown:
        return "everything was sent, but the board has not confirmed that it is stored: "
               "it may have the whole program or no program";
    case BoardState::kComplete:
        return "the program is complete on the board";
    }
    return "";
}

void UploadSession::Open(const Board &board, const std::string &interfaceName, const std::string &program,
                         std::size_t files)
{
    client_.emplace(SessionEndpoint(board), interfaceName, patience_.answer);
    state_ = BoardState::kMayBeEmptied; // a board that answers too late has still accepted the login
    try {
        client_->LogIn(wire::kSessionUpload);
    } catch (const VerbError &error) {
        if (error.Status() == ExitStatus::kRefused)
            state_ = BoardState::kUntouched;
        throw;
    }
    state_ = BoardState::kIncomplete;
    keepAlive_.emplace(client_->LocalAddress(), Endpoint{BoardAddress(board), board.source.port},
                       interfaceName);
    SendCommand(wire::kUploadRequest, UploadRequestPayload(program, files));
    Expect(wire::kUploadAnswer);
    SendCommand(wire::kUploadAskReady);
    Expect(wire::kUploadAnswerReady);
}

std::set<std::string> UploadSession::CheckVideos(const std::vector<std::string> &videos)
{
    // A board without a program folder, as on a new USB disk, would go on with the videos of an earlier
    // check. A file makes the folder; the check removes it with everything that is not a video.
    BeginFile(kFolderMaker);
    SendCommand(wire::kUploadFileEnd);
    SendCommand(wire::kUploadVideoStart);
    std::set<std::string> found;
    for (const std::vector<std::byte> &payload : ListPayloads(videos)) {
        SendCommand(wire::kUploadVideoList, payload);
        const std::vector<std::byte> reply = ReceiveReply(wire::kUploadAnswerVideoList);
        std::string_view names(reinterpret_cast<const char *>(reply.data()), reply.size());
        while (!names.empty()) {
            const std::size_t end = std::min(names.find('\0'), names.size());
            found.emplace(names.substr(0, end));
            names.remove_prefix(std::min(end + 1, names.size()));
        }
    }
    return found;
}

void UploadSession::RemoveOtherVideos()
{
    SendCommand(wire::kUploadVideoEnd);
}

void UploadSession::BeginFile(const std::string &name)
{
    std::vector<std::byte> payload;
    AppendText(&payload, name);
    SendCommand(wire::kUploadFileBegin, payload);
}

void UploadSession::SendFile(const ProgramFile &file, const std::function<void(std::uint64_t)> &advance)
{
    FileReader reader(file);
    BeginFile(file.name);
    std::vector<std::byte> frames;
    frames.reserve(kFramesPerSend * wire::kSessionBufferSize);
    while (reader.Left() > 0) {
        if (Interrupted())
            throw VerbError(ExitStatus::kInterrupted, "interrupted");
        frames.clear();
        std::uint64_t taken = 0;
        for (std::size_t i = 0; i < kFramesPerSend && reader.Left() > 0; ++i)
            taken += AppendData(&frames, &reader);
        client_->Send(frames);
        advance(taken);
    }
    SendCommand(wire::kUploadFileEnd);
}

void UploadSession::Finish()
{
    // A board that could not store a file has closed the session; an answer shows that all are stored so far.
    SendCommand(wire::kUploadAskReady);
    Expect(wire::kUploadAnswerReady);
    client_->SetPatience(patience_.finish);
    state_ = BoardState::kUnknown;
    SendCommand(wire::kUploadAskTransComplete);
    try {
        Expect(wire::kUploadAnswerTransComplete);
    } catch (const VerbError &error) {
        if (error.Status() == ExitStatus::kRefused)
            state_ = BoardState::kIncomplete;
        throw;
    }
    state_ = BoardState::kComplete;
    SendCommand(wire::kUploadAskDisconnect);
    ReceiveReply(wire::kUploadAnswerDisconnect); // its result has no meaning
}

void UploadSession::SendCommand(wire::UploadCode code, wire::Bytes payload)
{
    const std::size_t length = sizeof(wire::UploadCommandHead) + payload.size();
    wire::FrameHeader frame{};
    frame.length = static_cast<std::uint32_t>(sizeof frame + length);
    std::vector<std::byte> bytes;
    Append(&bytes, frame);
    Append(&bytes, wire::UploadCommandHead{UploadHeader(wire::kUploadCommand, length), code});
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    client_->Send(bytes);
}

void UploadSession::Expect(wire::UploadCode code)
{
    const std::vector<std::byte> reply = ReceiveReply(code);
    if (reply.size() != 1 || reply.front() != std::byte{1})
        throw VerbError(ExitStatus::kRefused, code == wire::kUploadAnswerTransComplete
                                                  ? "the board could not store the program"
                                                  : "the board refuses the upload");
}

std::vector<std::byte> UploadSession::ReceiveReply(wire::UploadCode code)
{
    std::byte start[sizeof(wire::KProtocolHeader)];
    client_->ReceiveExactly(start);
    const auto header = wire::Read<wire::KProtocolHeader>(start);
    const std::size_t length = header->ph_length;
    std::vector<std::byte> rest(length - std::min(length, sizeof *header));
    client_->ReceiveExactly(rest);
    if (header->ph_descrite != wire::kUploadDescrite || header->ph_version != wire::kUploadVersion ||
        header->ph_types != wire::kUploadCommand || rest.empty() || rest.front() != std::byte{code})
        throw VerbError(ExitStatus::kFailed, "the board's answer is invalid");
    rest.erase(rest.begin());
    return rest;
}

} // namespace ledboard
