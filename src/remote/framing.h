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

// The packet at the start of what is held.
RemoteFrame NextRemoteFrame(wire::Bytes held);

// The data that an inner command finds at offset 44.
wire::Bytes RequestData(wire::Bytes packet);

// The name in the first 255 bytes of the data, which need not all be there.
std::string RequestName(wire::Bytes data);

// The bytes of a data chunk, exactly as many as its size word says; nothing when the packet holds fewer.
std::optional<wire::Bytes> ChunkData(wire::Bytes packet);

// The area of names of a removal: what the inner length says, at most what is there.
wire::Bytes RemovalNames(wire::Bytes packet);
