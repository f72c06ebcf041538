// SPDX-License-Identifier: MIT
// server/operator_session.h: serves one operator on the local socket.
//
// Requests and answers are JSON objects, one per line:
//   {"command": "boards"} is answered by {"boards": [...]};
//   {"command": "push", "folder": PATH, "to": ID or "all"} by any number of {"progress": ...}, then
//   {"results": [...]};
//   any other request, or one that cannot be carried out, by {"error": TEXT, "kind": ...}.
// A push is cancelled when its operator disconnects.
#pragma once

#include "boards.h"

#include <asio/local/stream_protocol.hpp>

namespace server
{

asio::awaitable<void> ServeOperator(Boards &boards, asio::local::stream_protocol::socket socket);

} // namespace server
