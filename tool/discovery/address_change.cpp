// SPDX-License-Identifier: MIT
#include "discovery/address_change.h"

#include "common/address.h"
#include "common/pc/verb_error.h"
#include "discovery/discovery_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

namespace ledboard
{

namespace
{

using std::chrono::milliseconds;

constexpr int kFirstRequests = 3;        // in all, if requests are lost
constexpr milliseconds kAskPause{300};   // between two requests for the state
constexpr milliseconds kEchoLimit{3000}; // the echo comes at once or not at all
constexpr milliseconds kFlushTime{2000}; // for the board's DHCP client to remove the old address

wire::I32 NetworkOrder(in_addr address)
{
    return static_cast<std::int32_t>(address.s_addr);
}

wire::UpdateLocalIP Request(const WantedAddressing &wanted)
{
    wire::UpdateLocalIP change{};
    change.dhcpFlag = wanted.dynamic ? 1 : 0;
    if (wanted.dynamic)
        return change;
    change.ip = NetworkOrder(wanted.address);
    change.mask = NetworkOrder(wanted.netmask);
    change.gateway = NetworkOrder(wanted.gateway);
    change.port = wanted.port;
    return change;
}

class Exchange
{
public:
    explicit Exchange(const AddressChange &change)
        : change_(change), socket_(change.interface), cookie_(std::random_device()()),
          request_(MakeAddressChange(change.board.record, Request(change.wanted), cookie_)),
          board_(change.board)
    {
    }

    Board Run();

private:
    enum class Reaction { kSilence, kUnchanged, kApplied, kAcknowledged };

    void SendRequest();
    Reaction WatchFirst();
    void Acknowledge();
    Board FindAgain();
    std::optional<Board> Look(Clock::time_point deadline);
    void Ask(std::uint32_t cookie);
    void Take(const Datagram &datagram, std::uint32_t cookie, std::optional<Board> *seen);
    bool AwaitEcho(Clock::time_point deadline);
    bool IsEcho(const Datagram &datagram) const;

    const AddressChange &change_;
    DiscoverySocket socket_;
    std::uint32_t cookie_;
    wire::AddressChangeRequest request_;
    Board board_; // as last seen
    bool acknowledged_ = false;
};

// To the board alone if it has an address, because boards may share an identifier.
void Exchange::SendRequest()
{
    const wire::Bytes bytes = wire::BytesOf(request_);
    const bool hasAddress = board_.source.address.s_addr != 0;
    const int sent = hasAddress ? socket_.SendOn(board_.interface, board_.source, bytes)
                                : socket_.BroadcastOn(board_.interface, bytes, wire::kDiscoveryPort);
    if (sent != 1)
        throw SystemError("the request cannot be sent", errno);
}

// At every address that the board may have by now.
void Exchange::Ask(std::uint32_t cookie)
{
    const wire::SearchRequest search = MakeSearch(cookie);
    const wire::StatusRequest status = MakeStatusRequest(board_.record, cookie);
    std::vector<Endpoint> endpoints = {{{INADDR_BROADCAST}, wire::kDiscoveryPort}};
    if (board_.source.address.s_addr != 0)
        endpoints.push_back(board_.source);
    if (!change_.wanted.dynamic) {
        endpoints.push_back({change_.wanted.address, wire::kDiscoveryPort});
        if (change_.wanted.port != 0)
            endpoints.push_back({change_.wanted.address, static_cast<std::uint16_t>(change_.wanted.port)});
    }
    for (const Endpoint &endpoint : endpoints) {
        socket_.SendOn(board_.interface, endpoint, wire::BytesOf(search)); // a failure shows as no answer
        socket_.SendOn(board_.interface, endpoint, wire::BytesOf(status));
    }
}

bool Exchange::IsEcho(const Datagram &datagram) const
{
    const wire::Bytes sent = wire::BytesOf(request_);
    return std::equal(sent.begin(), sent.end(), datagram.bytes.begin(), datagram.bytes.end());
}

void Exchange::Take(const Datagram &datagram, std::uint32_t cookie, std::optional<Board> *seen)
{
    if (IsEcho(datagram)) {
        acknowledged_ = true;
        return;
    }
    if (const auto record = DecodeSearchReply(datagram.bytes, cookie)) {
        Board answer = {*record,
                        datagram.source,
                        datagram.interface,
                        InterfaceName(datagram.interface),
                        std::chrono::system_clock::now(),
                        std::nullopt};
        if (BoardKey(answer) != BoardKey(change_.board))
            return;
        if (*seen && (*seen)->source.address.s_addr == answer.source.address.s_addr)
            answer.addressing = (*seen)->addressing;
        *seen = std::move(answer);
    } else if (const auto status = DecodeStatusReply(datagram.bytes, cookie)) {
        const bool isSame =
            *seen && status->id == std::string(std::begin(board_.record.id), std::end(board_.record.id)) &&
            (*seen)->source.address.s_addr == datagram.source.address.s_addr;
        if (isSame)
            (*seen)->addressing = status->addressing;
    }
}

// The board as it answers requests sent from now on; nullopt if it does not answer, or if the echo arrives
// first.
std::optional<Board> Exchange::Look(Clock::time_point deadline)
{
    const std::uint32_t cookie = ++cookie_;
    std::optional<Board> seen;
    for (Clock::time_point now = Clock::now(); now < deadline && !acknowledged_; now = Clock::now()) {
        Ask(cookie);
        const Clock::time_point askAgain = std::min(deadline, now + kAskPause);
        while (!acknowledged_ && socket_.WaitForDatagram(askAgain)) {
            const std::optional<Datagram> datagram = socket_.Receive();
            if (datagram)
                Take(*datagram, cookie, &seen);
            if (seen && seen->addressing) {
                board_ = *seen;
                return seen;
            }
        }
    }
    return std::nullopt;
}

bool Exchange::AwaitEcho(Clock::time_point deadline)
{
    while (!acknowledged_ && socket_.WaitForDatagram(deadline)) {
        const std::optional<Datagram> datagram = socket_.Receive();
        acknowledged_ = datagram && IsEcho(*datagram);
    }
    return acknowledged_;
}

Exchange::Reaction Exchange::WatchFirst()
{
    const std::optional<Board> seen = Look(Clock::now() + change_.limit);
    if (acknowledged_)
        return Reaction::kAcknowledged;
    if (!seen)
        return Reaction::kSilence;
    return HasAddressing(*seen, change_.wanted) ? Reaction::kApplied : Reaction::kUnchanged;
}

Board Exchange::FindAgain()
{
    acknowledged_ = false;
    const std::optional<Board> seen = Look(Clock::now() + change_.limit);
    if (!seen)
        throw VerbError(ExitStatus::kTimeout,
                        "the change is applied, but the board is not found again afterwards");
    return *seen;
}

// Sends the second request. It is never repeated: the board would apply a third one.
void Exchange::Acknowledge()
{
    if (change_.wanted.dynamic) {
        change_.note("applied; waiting for the board to get an address");
        AwaitEcho(Clock::now() + kFlushTime);
        FindAgain();
    }
    SendRequest();
    if (!AwaitEcho(Clock::now() + std::min(change_.limit, kEchoLimit)))
        throw VerbError(ExitStatus::kTimeout, "step 2 of 2: the change is applied, the board is at " +
                                                  Dotted(BoardAddress(board_)) +
                                                  ", but its acknowledgement did not come");
}

Board Exchange::Run()
{
    for (int count = 0; count < kFirstRequests; ++count) {
        SendRequest();
        const Reaction reaction = WatchFirst();
        if (reaction == Reaction::kSilence)
            throw VerbError(ExitStatus::kTimeout,
                            "step 1 of 2: the board has not answered since the request was sent");
        if (reaction == Reaction::kUnchanged)
            continue; // the request was lost
        if (reaction == Reaction::kApplied)
            Acknowledge();
        Board found = FindAgain();
        if (HasAddressing(found, change_.wanted))
            return found;
        if (reaction == Reaction::kApplied || count > 0)
            throw VerbError(ExitStatus::kVerification, "the board acknowledged the change, but it is at " +
                                                           Dotted(BoardAddress(found)) + ", " +
                                                           FormatMode(found));
        // An immediate acknowledgement completes a pair that another program began; the next request is a
        // first.
    }
    throw VerbError(ExitStatus::kRefused, "step 1 of 2: the board keeps its addressing");
}

} // namespace

bool HasAddressing(const Board &board, const WantedAddressing &wanted)
{
    if (!board.addressing || board.addressing->dynamic != wanted.dynamic)
        return false;
    if (wanted.dynamic)
        return board.addressing->customPort == 0;
    const auto mask = static_cast<std::uint32_t>(std::int32_t{board.record.maskaddr});
    const auto gateway = static_cast<std::uint32_t>(std::int32_t{board.record.gwaddr});
    return board.addressing->customPort == wanted.port &&
           BoardAddress(board).s_addr == wanted.address.s_addr && htonl(mask) == wanted.netmask.s_addr &&
           htonl(gateway) == wanted.gateway.s_addr;
}

Board ChangeAddressing(const AddressChange &change)
{
    return Exchange(change).Run();
}

} // namespace ledboard
