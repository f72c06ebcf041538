// SPDX-License-Identifier: MIT
#include "server_witch_plexa.h"

#include "client_session.h"
#include "diag.h"
#include "player_records.h"

#include <cstdio>

namespace
{

constexpr char kUnit[] = "src/server_witch_plexa";

} // namespace

void SendMessageToPlexa(const void *buf, unsigned len)
{
    const FoundSession player = FindSession(wire::kSessionPlayer);
    if (player.result == FoundSession::kEmptyNode)
        Diag(kUnit, "SendMessageToPlexa", 189, "error");
    if (player.result != FoundSession::kFound)
        return;
    const long sent = SendBytes(player.socket.Get(), wire::BytesAt(buf, len));
    std::printf("send message to plexa: %ld, fd: %d\n", sent, player.fd);
}

void NetworkError()
{
    const wire::PlayerMessage message{
        .length = sizeof(wire::PlayerMessage), .kind = wire::kPlayerKind, .code = wire::SS_CMD_NETWORK_ERROR};
    SendMessageToPlexa(&message, sizeof message);
}

int DisposePlexaMessage(SocketSession *session)
{
    return session->buff == nullptr ? 0 : 1;
}
