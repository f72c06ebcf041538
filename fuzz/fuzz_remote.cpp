// SPDX-License-Identifier: MIT
// What a remote server sends: every packet taken shortens what is held, and no request is read beyond its
// packet.
#include "remote/framing.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    wire::Bytes held = wire::BytesAt(data, size);
    for (;;) {
        const RemoteFrame frame = NextRemoteFrame(held);
        if (frame.result != RemoteFrame::kComplete)
            return 0;
        const wire::Bytes packet = frame.packet;
        if (packet.size() < sizeof(wire::RemotePrefix) || packet.size() > held.size())
            std::abort();
        const std::size_t behind = packet.size() - RequestData(packet).size();
        const auto chunk = ChunkData(packet);
        if (RequestName(RequestData(packet)).size() > wire::kRemoteNameSize ||
            (chunk && chunk->size() + behind > packet.size()) ||
            RemovalNames(packet).size() + behind > packet.size())
            std::abort();
        held = held.subspan(packet.size());
    }
}
