// SPDX-License-Identifier: MIT
// tool/discovery/board_finder.h: asks for boards and collects what answers.
//
// A search is three times asked and read throughout; every board that is wanted is then asked for its
// addressing mode by status command 1. Datagrams get lost, so boards that have not told their mode are asked
// again until the time is over.
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
    // Without selectors every board is wanted and the whole time is used. With selectors the search ends as
    // soon as each of them has its board. Both references stay with the caller.
    BoardFinder(DiscoverySocket &socket, const std::vector<BoardSelector> &selectors);

    // Ordered by BoardKey, so by identifier first.
    std::vector<Board> Search(std::chrono::milliseconds time);

private:
    struct Found {
        Board board;
        std::optional<Endpoint> askedAt; // the address of the direct question that it answers
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
    std::vector<std::string> waitingForMode_; // keys of found_, next one last
    Clock::time_point nextModeBurst_;
};

} // namespace ledboard
