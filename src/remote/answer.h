// SPDX-License-Identifier: MIT
// src/remote/answer.h: what a command of the remote server leaves to be sent, and the replies that several
// commands have in common. Sees no descriptor. Any thread.
#pragma once

#include "records/remote_records.h"

#include <functional>
#include <string>
#include <vector>

// One reply, several, or none. It is sent before the next packet of the server is handled, so that it may
// refer to what only a later command changes.
struct RemoteAnswer {
    std::string packet;                // the only reply or the first one; empty: nothing is sent
    std::function<std::string()> next; // makes the replies that follow, one at each call; an empty one ends
                                       // them
};

template <wire::Record T> RemoteAnswer AnswerWith(const T &reply)
{
    return {.packet = std::string(reinterpret_cast<const char *>(&reply), sizeof reply), .next = {}};
}

// A reply's two headers; `innerLength` is what the inner length says.
wire::RemoteSessionHeader ReplyHeader(std::size_t innerLength, wire::RemoteReply code);

// The start of a reply of `size` bytes that repeats the request's name.
wire::RemoteNamePacket NamedReply(wire::Bytes request, std::size_t size, wire::RemoteReply code);

RemoteAnswer ResultAnswer(wire::RemoteReply code, std::uint32_t result);
RemoteAnswer NameAnswer(wire::Bytes request, wire::RemoteReply code, std::uint32_t result);

// The names, each ended by a zero byte, and one more zero byte after the last one; whole names in each
// packet. `names` must stay as it is until the answer is sent.
RemoteAnswer ListingAnswer(const std::vector<std::string> &names, wire::RemoteReply code);
