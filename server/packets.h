// SPDX-License-Identifier: MIT
// server/packets.h: what the server says to a board and what it hears (docs/protocols.md, "Remote server").
// Sees no descriptor.
#pragma once

#include "records/remote_records.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace server
{

// The peer does not speak the protocol; the connection ends.
class BadPacket : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::string MakeLoginAnswer(bool accepted);

// A packet of the remote session, addressed to the board.
std::string MakeRequest(std::string_view id, wire::RemoteRequest request, std::string_view data = {});
std::string MakeNameRequest(std::string_view id, wire::RemoteRequest request, std::string_view name);
std::string MakeChunk(std::string_view id, std::string_view data);

// The names packed into as few removal requests as they fit into.
std::vector<std::string> MakeRemovals(std::string_view id, const std::vector<std::string> &names);

struct Reply {
    std::uint32_t code = 0; // wire::RemoteReply
    std::string data;       // from offset 44
};

Reply ReadReply(wire::Bytes packet);              // throws BadPacket
std::uint32_t ReplyWord(const Reply &reply);      // the last four bytes: a result or a CRC; throws BadPacket
std::string ReplyDigest(const Reply &reply);      // empty without a file; throws BadPacket
std::size_t ReplyTableLength(const Reply &reply); // chunks that this piece claims; throws BadPacket

// Takes a piece of a listing. True when it was the last.
bool TakeNames(const Reply &reply, std::vector<std::string> *names);

} // namespace server
