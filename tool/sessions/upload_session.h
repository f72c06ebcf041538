// SPDX-License-Identifier: MIT
// tool/sessions/upload_session.h: a client of a board's upload service (docs/protocols.md, "Upload"). One
// thread at a time.
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

// The state of the program on the board if the session ended now.
enum class BoardState {
    kUntouched,    // no session was opened
    kMayBeEmptied, // the login was sent, but not answered
    kIncomplete,   // when the session ends, the board removes what it has
    kUnknown,      // the end was sent, but not answered
    kComplete,
};
const char *DescribeState(BoardState state); // for a message: without a capital and a full stop

struct UploadPatience {
    std::chrono::milliseconds answer; // for an answer, and for the board to accept more data
    std::chrono::milliseconds finish; // for the board to store everything on its disk
};

// Every call throws VerbError; State() then says what that means for the board.
class UploadSession
{
public:
    explicit UploadSession(const UploadPatience &patience) : patience_(patience) {}

    // Logs in and announces an upload of `files` files named `program`.
    void Open(const Board &board, const std::string &interfaceName, const std::string &program,
              std::size_t files);

    // Removes everything but videos from the board. Returns those of `videos` that the board has.
    std::set<std::string> CheckVideos(const std::vector<std::string> &videos);
    void RemoveOtherVideos(); // those that were not named to CheckVideos

    // `advance` is called with the number of bytes that have gone out.
    void SendFile(const ProgramFile &file, const std::function<void(std::uint64_t)> &advance);

    void Finish(); // waits until the program is on the board's disk; ends the session

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
