// SPDX-License-Identifier: MIT
// server/operator_session.h: serves one operator on the local socket.
//
// A request is one JSON object on a line, {"command": "boards"} or {"command": "push", "folder": PATH, "to":
// ID or "all"}. Answers are objects on lines: {"boards": [...]}; for a push any number of {"progress": ...}
// and then
// {"results": [...]}; {"error": TEXT, "kind": ...} for what cannot be done. A push goes on for as long as its
// operator stays connected.
#pragma once

#include "boards.h"

#include <asio/local/stream_protocol.hpp>

namespace server
{

asio::awaitable<void> ServeOperator(Boards &boards, asio::local::stream_protocol::socket socket);

} // namespace server
