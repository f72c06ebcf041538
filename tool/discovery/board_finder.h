// SPDX-License-Identifier: MIT
// tool/discovery/board_finder.h: searches for boards.
//
// A search request goes out three times, and answers are read all the time. Each board that is found is then
// asked for its addressing mode (status command 1). Datagrams get lost, so boards that have not reported
// their mode are asked again until the time is up.
#pragma once

#include "discovery/board_selector.h"
#include "discovery/discovery_socket.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ledboard
{

class BoardFinder
{
public:
    // Without selectors a search finds every board and takes its whole time. With selectors it ends as soon
    // as each of them has its board. The caller keeps both objects alive.
    BoardFinder(DiscoverySocket &socket, const std::vector<BoardSelector> &selectors);

    // Ordered by BoardKey, so by identifier first. Throws VerbError.
    std::vector<Board> Search(std::chrono::milliseconds time);

private:
    struct Found {
        Board board;
        std::optional<Endpoint> askedAt; // where it was asked directly; nullopt: found by broadcast
        Clock::time_point heard;         // first answer
        bool askedForMode;
    };
    using FoundMap = std::map<std::string, Found>;

    void AskForBoards(bool firstTime);
    void AskForMode(Found &found);
    void TakeAnswers();
    void TakeSearchReply(const Datagram &datagram, const wire::DeviceRecord &record);
    void TakeStatusReply(const Datagram &datagram, const StatusAnswer &answer);
    void AskWaitingForMode();
    void QueueModeQuestions();
    void ForgetAmbiguousModes();
    bool Wanted(const Board &board) const;
    bool Settled(const BoardSelector &selector) const;
    bool AllSettled() const;
    std::vector<Board> Result() const;

    DiscoverySocket &socket_;
    const std::vector<BoardSelector> &selectors_;
    std::uint32_t cookie_;
    FoundMap found_;
    std::vector<std::string> waitingForMode_; // keys of found_, the next one last
    Clock::time_point nextModeBurst_;
};

} // namespace ledboard
