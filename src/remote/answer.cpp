// SPDX-License-Identifier: MIT
#include "remote/answer.h"

#include "remote/framing.h"
#include "state/device_record.h"

#include <cstring>

namespace
{

// Makes the packets of a listing one after another, so that a folder of any size takes one packet of memory.
class Listing
{
public:
    Listing(const std::vector<std::string> &names, wire::RemoteReply code) : names_(&names), code_(code) {}
    std::string Next();

private:
    static constexpr std::size_t kMaxData = wire::kRemoteBufferSize - sizeof(wire::RemoteSessionHeader);

    std::string Packet(const std::string &data) const;

    const std::vector<std::string> *names_;
    wire::RemoteReply code_;
    std::size_t next_ = 0; // index of the first name that was not listed
    bool ended_ = false;
};

std::string Listing::Next()
{
    if (ended_)
        return {};
    std::string data;
    for (; next_ < names_->size(); ++next_) {
        const std::string &name = (*names_)[next_];
        const std::size_t size = name.size() + 1;
        if (size > kMaxData) // no packet can hold it
            continue;
        if (data.size() + size > kMaxData)
            return Packet(data);
        data.append(name.c_str(), size);
    }
    if (data.size() == kMaxData) // the last zero byte needs another packet
        return Packet(data);
    ended_ = true;
    return Packet(data + '\0');
}

std::string Listing::Packet(const std::string &data) const
{
    const wire::RemoteSessionHeader header = ReplyHeader(sizeof(wire::RemoteHeader) + data.size(), code_);
    return std::string(reinterpret_cast<const char *>(&header), sizeof header) + data;
}

} // namespace

wire::RemoteSessionHeader ReplyHeader(std::size_t innerLength, wire::RemoteReply code)
{
    wire::RemoteSessionHeader header{};
    header.outer.prefix = {.length = static_cast<std::uint32_t>(sizeof header.outer + innerLength),
                           .command = wire::kRemoteSession};
    header.inner.prefix = {.length = static_cast<std::uint32_t>(innerLength), .command = code};
    std::memcpy(header.outer.id, g_device.Copy().id, sizeof header.outer.id);
    std::memcpy(header.inner.id, header.outer.id, sizeof header.inner.id);
    return header;
}

wire::RemoteNamePacket NamedReply(wire::Bytes request, std::size_t size, wire::RemoteReply code)
{
    wire::RemoteNamePacket named{};
    named.header = ReplyHeader(size - sizeof(wire::RemoteHeader), code);
    const std::string name = RequestName(RequestData(request));
    std::memcpy(named.name, name.data(), name.size());
    return named;
}

RemoteAnswer ResultAnswer(wire::RemoteReply code, std::uint32_t result)
{
    wire::RemoteResultReply reply{};
    reply.header = ReplyHeader(sizeof reply - sizeof(wire::RemoteHeader), code);
    reply.result = result;
    return AnswerWith(reply);
}

RemoteAnswer NameAnswer(wire::Bytes request, wire::RemoteReply code, std::uint32_t result)
{
    wire::RemoteNameReply reply{};
    reply.named = NamedReply(request, sizeof reply, code);
    reply.result = result;
    return AnswerWith(reply);
}

RemoteAnswer ListingAnswer(const std::vector<std::string> &names, wire::RemoteReply code)
{
    Listing listing(names, code);
    std::string first = listing.Next();
    return {.packet = std::move(first), .next = [listing]() mutable { return listing.Next(); }};
}
