// SPDX-License-Identifier: MIT
#include "remote/framing.h"

#include <algorithm>

namespace
{

bool HasData(std::uint32_t request)
{
    switch (request) {
    case wire::kRemoteGetMd5:
    case wire::kRemoteGetTable:
    case wire::kRemoteCreate:
    case wire::kRemoteClose:
    case wire::kRemoteRemove:
    case wire::kRemoteData:
    case wire::kRemoteResume:
        return true;
    default:
        return false;
    }
}

// The size that a packet of this kind must have for its handler to read its headers.
std::size_t MinSize(wire::Bytes packet)
{
    const auto outer = wire::Read<wire::RemotePrefix>(packet);
    if (outer->command == wire::kRemoteLoginAnswer)
        return sizeof(wire::RemoteWord);
    if (outer->command != wire::kRemoteSession)
        return sizeof(wire::RemotePrefix);
    const auto inner = wire::Read<wire::RemotePrefix>(packet, sizeof(wire::RemoteHeader));
    if (inner && HasData(inner->command))
        return sizeof(wire::RemoteSessionHeader);
    return sizeof(wire::RemoteHeader) + sizeof(wire::RemotePrefix);
}

} // namespace

RemoteFrame NextRemoteFrame(wire::Bytes held)
{
    const auto length = wire::Read<wire::U32>(held);
    if (!length)
        return {};
    if (*length < sizeof(wire::RemotePrefix) || *length > wire::kRemoteBufferSize)
        return {.result = RemoteFrame::kBroken, .packet = {}};
    if (*length > held.size())
        return {};
    const wire::Bytes packet = held.first(*length);
    if (packet.size() < MinSize(packet))
        return {.result = RemoteFrame::kBroken, .packet = {}};
    return {.result = RemoteFrame::kComplete, .packet = packet};
}

wire::Bytes RequestData(wire::Bytes packet)
{
    return packet.subspan(std::min(packet.size(), sizeof(wire::RemoteSessionHeader)));
}

std::string RequestName(wire::Bytes data)
{
    const wire::Bytes field = data.first(std::min(data.size(), wire::kRemoteNameSize));
    const auto end = std::find(field.begin(), field.end(), std::byte{0});
    return std::string(reinterpret_cast<const char *>(field.data()),
                       static_cast<std::size_t>(end - field.begin()));
}

std::optional<wire::Bytes> ChunkData(wire::Bytes packet)
{
    const auto chunk = wire::Read<wire::RemoteChunkRequest>(packet);
    if (!chunk || chunk->size > packet.size() - sizeof *chunk)
        return std::nullopt;
    return packet.subspan(sizeof *chunk, chunk->size);
}

wire::Bytes RemovalNames(wire::Bytes packet)
{
    const auto inner = wire::Read<wire::RemotePrefix>(packet, sizeof(wire::RemoteHeader));
    const wire::Bytes data = RequestData(packet);
    if (!inner || inner->length < sizeof(wire::RemoteHeader))
        return {};
    return data.first(std::min<std::size_t>(data.size(), inner->length - sizeof(wire::RemoteHeader)));
}
