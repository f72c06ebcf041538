// SPDX-License-Identifier: MIT
#include "packets.h"

#include "common/text_field.h"

namespace server
{

namespace
{

template <wire::Record T> std::string Text(const T &record)
{
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

wire::RemoteHeader Header(std::string_view id, std::size_t length, std::uint32_t command)
{
    wire::RemoteHeader header{};
    header.prefix = {.length = static_cast<std::uint32_t>(length), .command = command};
    ledboard::SetFieldText(header.id, id);
    return header;
}

} // namespace

std::string MakeLoginAnswer(bool accepted)
{
    return Text(
        wire::RemoteWord{.prefix = {.length = sizeof(wire::RemoteWord), .command = wire::kRemoteLoginAnswer},
                         .value = accepted ? 0U : 1U});
}

std::string MakeRequest(std::string_view id, wire::RemoteRequest request, std::string_view data)
{
    const std::size_t inner = sizeof(wire::RemoteHeader) + data.size();
    return Text(Header(id, sizeof(wire::RemoteHeader) + inner, wire::kRemoteSession)) +
           Text(Header(id, inner, request)) + std::string(data);
}

std::string MakeNameRequest(std::string_view id, wire::RemoteRequest request, std::string_view name)
{
    std::string field(wire::kRemoteNameSize, '\0');
    name.copy(field.data(), field.size());
    return MakeRequest(id, request, field);
}

std::string MakeChunk(std::string_view id, std::string_view data)
{
    // Boards do not read the second word.
    const wire::U32 words[2] = {static_cast<std::uint32_t>(data.size()), 0U};
    return MakeRequest(id, wire::kRemoteData,
                       std::string(reinterpret_cast<const char *>(words), sizeof words).append(data));
}

std::vector<std::string> MakeRemovals(std::string_view id, const std::vector<std::string> &names)
{
    constexpr std::size_t kRoom = wire::kRemoteBufferSize - sizeof(wire::RemoteSessionHeader);
    std::vector<std::string> requests;
    std::string area;
    const auto flush = [&] {
        if (!area.empty())
            requests.push_back(MakeRequest(id, wire::kRemoteRemove, area));
        area.clear();
    };
    for (const std::string &name : names) {
        if (area.size() + name.size() + 1 > kRoom)
            flush();
        area += name + '\0';
    }
    flush();
    return requests;
}

Reply ReadReply(wire::Bytes packet)
{
    const auto header = wire::Read<wire::RemoteSessionHeader>(packet);
    if (!header)
        throw BadPacket("a reply without its headers");
    const wire::Bytes data = packet.subspan(sizeof *header);
    return {.code = header->inner.prefix.command,
            .data = std::string(reinterpret_cast<const char *>(data.data()), data.size())};
}

std::uint32_t ReplyWord(const Reply &reply)
{
    if (reply.data.size() < sizeof(wire::U32))
        throw BadPacket("a reply without its result");
    return *wire::Read<wire::U32>(wire::BytesAt(reply.data.data(), reply.data.size()),
                                  reply.data.size() - sizeof(wire::U32));
}

std::string ReplyDigest(const Reply &reply)
{
    constexpr std::size_t kDigestSize = sizeof(wire::RemoteMd5Reply::digest);
    if (reply.data.size() != wire::kRemoteNameSize + kDigestSize)
        throw BadPacket("a digest reply of another length");
    const std::string digest = reply.data.substr(wire::kRemoteNameSize);
    return digest.front() == '\0' ? "" : digest;
}

std::size_t ReplyTableLength(const Reply &reply)
{
    if (reply.data.size() < wire::kRemoteNameSize + 1)
        throw BadPacket("a table reply without a table");
    return reply.data.size() - wire::kRemoteNameSize - 1; // a board sends one byte more than the table has
}

bool TakeNames(const Reply &reply, std::vector<std::string> *names)
{
    for (std::size_t at = 0; at < reply.data.size();) {
        const std::size_t end = reply.data.find('\0', at);
        if (end == at)
            return true;
        if (end == std::string::npos)
            throw BadPacket("a listing with half a name");
        names->push_back(reply.data.substr(at, end - at));
        at = end + 1;
    }
    return false;
}

} // namespace server
