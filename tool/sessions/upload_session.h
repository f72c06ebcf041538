// SPDX-License-Identifier: MIT
// tool/sessions/upload_session.h: the client's side of an upload (docs/protocols.md, "Upload"). One thread at
// a time.
#pragma once

#include "records/upload_records.h"
#include "sessions/keep_alive.h"
#include "sessions/program_folder.h"
#include "sessions/session_client.h"

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace ledboard
{

// What has become of the program on the board, should the session end now.
enum class BoardState {
    kUntouched,    // no session was opened
    kMayBeEmptied, // asked to log in, but it has not answered
    kIncomplete,   // the board drops what it has when the session ends
    kUnknown,      // told to finish, but it has not answered
    kComplete,
};
const char *DescribeState(BoardState state); // a sentence without capital and full stop

struct UploadPatience {
    std::chrono::milliseconds answer; // for an answer, and for the board to take more data
    std::chrono::milliseconds finish; // until everything is on the board's disk
};

// Every call throws VerbError; State() then tells what it means for the board.
class UploadSession
{
public:
    explicit UploadSession(const UploadPatience &patience) : patience_(patience) {}

    // Logs in and announces an upload of `files` files named `program`.
    void Open(const Board &board, const std::string &interfaceName, const std::string &program,
              std::size_t files);

    // Removes everything but videos from the board. The answer: which of `videos` it has.
    std::set<std::string> CheckVideos(const std::vector<std::string> &videos);
    void RemoveOtherVideos(); // those that CheckVideos has not found

    // `advance` is called with the number of bytes that have gone out.
    void SendFile(const ProgramFile &file, const std::function<void(std::uint64_t)> &advance);

    void Finish(); // returns when the program is on the board's disk, and leaves

    BoardState State() const { return state_; }

private:
    void BeginFile(const std::string &name);
    void SendCommand(wire::UploadCode code, wire::Bytes payload = {});
    void Expect(wire::UploadCode code);
    std::vector<std::byte> ReceiveReply(wire::UploadCode code); // what follows the code

    UploadPatience patience_;
    BoardState state_ = BoardState::kUntouched;
    std::optional<SessionClient> client_;
    std::optional<KeepAlive> keepAlive_;
};

} // namespace ledboard
