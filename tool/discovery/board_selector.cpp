// SPDX-License-Identifier: MIT
#include "discovery/board_selector.h"

#include "common/address.h"
#include "common/pc/text.h"
#include "common/pc/verb_error.h"
#include "common/text_field.h"

#include <arpa/inet.h>
#include <strings.h>

#include <charconv>

namespace ledboard
{

namespace
{

bool LooselyEqual(const std::string &a, const std::string &b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::uint16_t ParsePort(const std::string &selector, const std::string &digits)
{
    unsigned port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port == 0 || port > 65535)
        throw VerbError(ExitStatus::kUsage, "'" + selector + "': the port must be a number from 1 to 65535");
    return static_cast<std::uint16_t>(port);
}

} // namespace

BoardSelector ParseSelector(const std::string &text)
{
    if (text.empty())
        throw VerbError(ExitStatus::kUsage, "an empty text names no board");
    const std::size_t colon = text.find(':');
    in_addr address = {};
    if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1)
        return {text, std::nullopt};
    const std::uint16_t port =
        colon == std::string::npos ? wire::kDiscoveryPort : ParsePort(text, text.substr(colon + 1));
    return {text, Endpoint{address, port}};
}

Match MatchBoard(const BoardSelector &selector, const Board &board)
{
    if (selector.address) {
        // A board asked on its custom port answers from it, which distinguishes boards behind one router's
        // address.
        const bool fits = selector.address->port == wire::kDiscoveryPort
                              ? selector.address->address.s_addr == BoardAddress(board).s_addr
                              : *selector.address == board.source;
        return fits ? Match::kExact : Match::kNone;
    }
    const std::string id(FieldText(board.record.id));
    const std::string name(FieldText(board.record.name));
    if (selector.text == id || LooselyEqual(selector.text, BoardMac(board.record)))
        return Match::kExact;
    if (LooselyEqual(selector.text, id) || selector.text == BoardId(board.record))
        return Match::kIdLoosely;
    if (selector.text == name || selector.text == BoardName(board.record))
        return Match::kName;
    return LooselyEqual(selector.text, name) ? Match::kNameLoosely : Match::kNone;
}

const Board &SelectBoard(const BoardSelector &selector, const std::vector<Board> &boards)
{
    Match best = Match::kNone;
    std::vector<const Board *> found;
    for (const Board &board : boards) {
        const Match match = MatchBoard(selector, board);
        if (match == Match::kNone || match < best)
            continue;
        if (match > best)
            found.clear();
        best = match;
        found.push_back(&board);
    }
    if (found.empty())
        throw VerbError(ExitStatus::kNoSuchBoard,
                        selector.address
                            ? "no board answers at " + selector.text
                            : "no board answers with the identifier, name or MAC '" + selector.text + "'");
    if (found.size() == 1)
        return *found.front();
    std::string message = "'" + selector.text + "' fits several boards:";
    for (const Board *board : found)
        message += " " + BoardLabel(*board) + " (" + BoardMac(board->record) + ", " +
                   Dotted(BoardAddress(*board)) + ")";
    throw VerbError(ExitStatus::kUsage, message + "; name one by its address or MAC");
}

} // namespace ledboard
