// SPDX-License-Identifier: MIT
// src/remote/framing.h: cuts what the remote server sends into packets and decodes them. Sees no descriptor.
#pragma once

#include "records/remote_records.h"

#include <string>

struct RemoteFrame {
    enum Result { kIncomplete, kComplete, kBroken };
    Result result = kIncomplete; // kBroken: no peer that speaks the protocol sends this
    wire::Bytes packet;          // when complete
};

// Looks at the packet at the start of the bytes that were received and not handled yet.
RemoteFrame NextRemoteFrame(wire::Bytes held);

// What follows the two headers of a session packet.
wire::Bytes RequestData(wire::Bytes packet);

// The name in the first 255 bytes of the data. It ends at the first zero byte or where the data ends.
std::string RequestName(wire::Bytes data);

// The bytes of a data chunk, exactly as many as its size word says; nothing if the packet holds fewer.
std::optional<wire::Bytes> ChunkData(wire::Bytes packet);

// The names of a removal, each ended by a zero byte: as many bytes as the inner length says, at most those
// that are there.
wire::Bytes RemovalNames(wire::Bytes packet);
