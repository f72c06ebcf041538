// SPDX-License-Identifier: MIT
#include "discovery/board_finder.h"

#include "common/pc/verb_error.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <random>
#include <utility>

namespace ledboard
{

namespace
{

using std::chrono::milliseconds;

// A search has six parts of equal length. Boards are searched for at the start of the first three, missing
// modes are asked for at the start of the first five; the rest of the time is for late answers.
constexpr int kSixths = 6;
constexpr int kBoardRounds = 3;
constexpr int kModeRounds = 5;

// Every mode request may be a broadcast that all boards read. Bursts of this size, with this pause, overrun
// no board.
constexpr std::size_t kModeBurst = 16;
constexpr milliseconds kModePause{5};

// How much later than the first a second board with the same identifier may answer.
constexpr milliseconds kTwinTime{300};

} // namespace

BoardFinder::BoardFinder(DiscoverySocket &socket, const std::vector<BoardSelector> &selectors)
    : socket_(socket), selectors_(selectors), cookie_(std::random_device()())
{
}

std::vector<Board> BoardFinder::Search(milliseconds time)
{
    const Clock::time_point start = Clock::now();
    int round = 0;
    for (;;) {
        const Clock::time_point now = Clock::now();
        if (now >= start + time)
            break;
        if (round < kModeRounds && now >= start + time * round / kSixths) {
            if (round < kBoardRounds)
                AskForBoards(round == 0);
            QueueModeQuestions();
            ++round;
        }
        TakeAnswers();
        AskWaitingForMode();
        if (AllSettled())
            break;
        Clock::time_point wake = std::min(start + time, nextModeBurst_);
        if (waitingForMode_.empty() && round < kModeRounds)
            wake = start + time * round / kSixths;
        else if (waitingForMode_.empty())
            wake = start + time;
        if (!selectors_.empty())
            wake = std::min(wake, now + kTwinTime / 6);
        socket_.WaitForDatagram(wake);
    }
    ForgetAmbiguousModes();
    return Result();
}

// An address is asked directly. If it does not answer, the board may be on the PC's own network with an
// address that no route leads to; then the search is broadcast.
void BoardFinder::AskForBoards(bool firstTime)
{
    const wire::SearchRequest search = MakeSearch(cookie_);
    bool broadcast = selectors_.empty();
    for (const BoardSelector &selector : selectors_) {
        if (Settled(selector))
            continue;
        if (!selector.address) {
            broadcast = true;
            continue;
        }
        socket_.SendTo(*selector.address, wire::BytesOf(search)); // a failure shows as no answer
        if (!firstTime && selector.address->port == wire::kDiscoveryPort)
            broadcast = true;
    }
    if (!broadcast)
        return;
    try {
        socket_.Broadcast(wire::BytesOf(search), wire::kDiscoveryPort);
    } catch (const VerbError &) {
        const bool onlyAddresses =
            !selectors_.empty() && std::all_of(selectors_.begin(), selectors_.end(),
                                               [](const auto &selector) { return selector.address; });
        if (firstTime && !onlyAddresses)
            throw; // in all other cases a direct request may still be answered
    }
}

void BoardFinder::TakeAnswers()
{
    constexpr int kPerRound = 1000; // a flood must not keep the search from ending
    for (int i = 0; i < kPerRound; ++i) {
        const std::optional<Datagram> datagram = socket_.Receive();
        if (!datagram)
            return;
        if (const auto record = DecodeSearchReply(datagram->bytes, cookie_))
            TakeSearchReply(*datagram, *record);
        else if (const auto answer = DecodeStatusReply(datagram->bytes, cookie_))
            TakeStatusReply(*datagram, *answer);
    }
}

void BoardFinder::TakeSearchReply(const Datagram &datagram, const wire::DeviceRecord &record)
{
    Board board = {record,
                   datagram.source,
                   datagram.interface,
                   InterfaceName(datagram.interface),
                   std::chrono::system_clock::now(),
                   std::nullopt};
    if (!Wanted(board))
        return;
    std::optional<Endpoint> askedAt;
    for (const BoardSelector &selector : selectors_)
        if (selector.address && MatchBoard(selector, board) != Match::kNone)
            askedAt = selector.address;
    const std::string key = BoardKey(board);
    const auto known = found_.find(key);
    if (known == found_.end()) {
        found_.emplace(key, Found{std::move(board), askedAt, Clock::now(), false});
        waitingForMode_.push_back(key);
        return;
    }
    board.addressing = known->second.board.addressing;
    known->second.board = std::move(board);
}

// The answer has only the identifier; the sender's address distinguishes boards that share one.
void BoardFinder::TakeStatusReply(const Datagram &datagram, const StatusAnswer &answer)
{
    for (auto &[key, found] : found_) {
        const bool sameId = key.compare(0, wire::kDeviceIdSize, answer.id) == 0;
        if (sameId && found.board.source.address.s_addr == datagram.source.address.s_addr)
            found.board.addressing = answer.addressing;
    }
}

void BoardFinder::QueueModeQuestions()
{
    waitingForMode_.clear();
    for (const auto &[key, found] : found_)
        waitingForMode_.push_back(key);
}

void BoardFinder::AskWaitingForMode()
{
    if (Clock::now() < nextModeBurst_)
        return;
    nextModeBurst_ = Clock::now() + kModePause;
    for (std::size_t asked = 0; asked < kModeBurst && !waitingForMode_.empty();) {
        Found &found = found_.at(waitingForMode_.back());
        waitingForMode_.pop_back();
        if (found.board.addressing)
            continue;
        AskForMode(found);
        ++asked;
    }
}

// Directly if the board was found that way. By broadcast if it was not, or if the direct request failed or
// got no answer.
void BoardFinder::AskForMode(Found &found)
{
    const wire::StatusRequest request = MakeStatusRequest(found.board.record, cookie_);
    const bool first = !std::exchange(found.askedForMode, true);
    if (found.askedAt) {
        const int sent = socket_.SendTo(*found.askedAt, wire::BytesOf(request));
        if (found.askedAt->port != wire::kDiscoveryPort || (first && sent == 1))
            return;
    }
    socket_.BroadcastOn(found.board.interface, wire::BytesOf(request), wire::kDiscoveryPort);
}

// If two boards share identifier and address, it is unknown which of them reported its mode.
void BoardFinder::ForgetAmbiguousModes()
{
    for (auto one = found_.begin(); one != found_.end(); ++one) {
        for (auto other = std::next(one); other != found_.end(); ++other) {
            Board &a = one->second.board;
            Board &b = other->second.board;
            const bool sameId = std::equal(std::begin(a.record.id), std::end(a.record.id), b.record.id);
            if (!sameId)
                break; // the map is ordered by identifier
            if (a.source.address.s_addr == b.source.address.s_addr) {
                a.addressing.reset();
                b.addressing.reset();
            }
        }
    }
}

bool BoardFinder::Wanted(const Board &board) const
{
    return selectors_.empty() ||
           std::any_of(selectors_.begin(), selectors_.end(), [&](const BoardSelector &selector) {
               return MatchBoard(selector, board) != Match::kNone;
           });
}

// Only an exact match settles a selector: a second board may have the same name.
bool BoardFinder::Settled(const BoardSelector &selector) const
{
    return std::any_of(found_.begin(), found_.end(), [&](const auto &entry) {
        const Found &found = entry.second;
        const bool waitedForTwin = selector.address || Clock::now() - found.heard >= kTwinTime;
        return found.board.addressing && waitedForTwin && MatchBoard(selector, found.board) == Match::kExact;
    });
}

bool BoardFinder::AllSettled() const
{
    return !selectors_.empty() && std::all_of(selectors_.begin(), selectors_.end(),
                                              [this](const auto &selector) { return Settled(selector); });
}

std::vector<Board> BoardFinder::Result() const
{
    std::vector<Board> boards;
    for (const auto &[key, found] : found_)
        boards.push_back(found.board);
    return boards;
}

} // namespace ledboard
