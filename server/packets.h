// SPDX-License-Identifier: MIT
// server/packets.h: builds the packets to a board and reads those from it (docs/protocols.md, "Remote
// server"). Sees no descriptor.
#pragma once

#include "records/remote_records.h"

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace server
{

// The peer breaks the protocol; the connection is closed.
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

// As few removal requests as the names fit into.
std::vector<std::string> MakeRemovals(std::string_view id, const std::vector<std::string> &names);

struct Reply {
    std::uint32_t code = 0; // wire::RemoteReply
    std::string data;       // from offset 44
};

Reply ReadReply(wire::Bytes packet);              // throws BadPacket
std::uint32_t ReplyWord(const Reply &reply);      // the last four bytes: a result or a CRC; throws BadPacket
std::string ReplyDigest(const Reply &reply);      // empty: no such file; throws BadPacket
std::size_t ReplyTableLength(const Reply &reply); // chunks in this piece of a table; throws BadPacket

// Appends the names in a piece of a listing. True if it was the last piece. Throws BadPacket.
bool TakeNames(const Reply &reply, std::vector<std::string> *names);

} // namespace server
