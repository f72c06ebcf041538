// SPDX-License-Identifier: MIT
#include "discovery/server_settings.h"

#include "common/pc/text.h"
#include "common/pc/verb_error.h"
#include "common/text_field.h"
#include "discovery/discovery_socket.h"

#include <arpa/inet.h>

#include <cstring>
#include <random>

namespace ledboard
{

namespace
{

constexpr std::chrono::milliseconds kAskAgain{400};

std::uint32_t NewCookie()
{
    static std::random_device random;
    return random();
}

// The start of every reply: the header with our cookie, the command, the board's identifier.
struct ReplyStart {
    wire::ProtocolHeader header;
    wire::U32 cmd;
    char id[wire::kDeviceIdSize];
};
static_assert(sizeof(ReplyStart) == sizeof(wire::StatusRequest));

template <wire::Record Reply>
bool IsAnswer(const Datagram &datagram, std::uint32_t cookie, std::uint32_t command, const Board &board)
{
    const auto start = wire::Read<ReplyStart>(datagram.bytes);
    return start && datagram.bytes.size() == sizeof(Reply) && start->header.ph_data_crc == cookie &&
           start->cmd == command && std::memcmp(start->id, board.record.id, sizeof start->id) == 0;
}

// Repeats the request until the board answers.
template <wire::Record Reply, wire::Record Request>
Reply Ask(const ServerQuery &query, Request request, std::uint32_t answerCommand)
{
    const Endpoint endpoint = {BoardAddress(query.board), wire::kDiscoveryPort};
    const std::uint32_t cookie = NewCookie();
    request.header = {};
    request.header.ph_length = static_cast<std::uint16_t>(sizeof request);
    request.header.ph_data_crc = cookie;
    std::memcpy(request.id, query.board.record.id, sizeof request.id);
    DiscoverySocket socket(query.interfaceName);
    const Clock::time_point deadline = Clock::now() + query.patience;
    while (Clock::now() < deadline) {
        if (socket.SendTo(endpoint, wire::BytesOf(request)) != 1)
            throw SystemError("cannot reach " + FormatEndpoint(endpoint), errno);
        const Clock::time_point next = std::min(deadline, Clock::now() + kAskAgain);
        while (socket.WaitForDatagram(next)) {
            while (const std::optional<Datagram> datagram = socket.Receive()) {
                if (IsAnswer<Reply>(*datagram, cookie, answerCommand, query.board))
                    return *wire::Read<Reply>(datagram->bytes);
            }
        }
    }
    throw VerbError(ExitStatus::kTimeout, "the board does not answer at " + FormatEndpoint(endpoint));
}

template <wire::Record Reply> Reply AskStatus(const ServerQuery &query, wire::StatusCommand command)
{
    wire::StatusRequest request{};
    request.cmd = command;
    return Ask<Reply>(query, request, command);
}

} // namespace

ServerSettings AskServer(const ServerQuery &query)
{
    const auto reply = AskStatus<wire::RemoteAddressReply>(query, wire::kStatusGetRemoteAddress);
    // A board that has read the port from its file may send a negative number; only the low 16 bits count.
    return {ToUtf8(FieldText(reply.server.addr)), static_cast<std::uint16_t>(reply.server.port),
            ToUtf8(FieldText(reply.server.username))};
}

bool AskConnected(const ServerQuery &query)
{
    return AskStatus<wire::RemoteStatusReply>(query, wire::kStatusConnectServer).connected == 1;
}

void SetServer(const ServerQuery &query, const ServerSettings &settings)
{
    wire::SetRemoteServerRequest request{};
    in_addr address;
    // Boards resolve the host as a name only if this flag is set.
    request.server.domainFlag = inet_pton(AF_INET, settings.host.c_str(), &address) == 1 ? 0 : 1;
    SetFieldText(request.server.addr, settings.host);
    request.server.port = settings.port;
    SetFieldText(request.server.username, settings.user);
    Ask<wire::RemoteStatusReply>(query, request, wire::kStatusSetRemoteAddress);
}

void ForgetServer(const ServerQuery &query)
{
    AskStatus<wire::RemoteStatusReply>(query, wire::kStatusDisconnectServer);
}

} // namespace ledboard
