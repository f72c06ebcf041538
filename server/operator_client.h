// SPDX-License-Identifier: MIT
// server/operator_client.h: the operator's verbs: they ask the running server over its local socket.
#pragma once

#include <string>

namespace server
{

// Exit statuses are those of ledboard: 0 done, 1 failed, 3 no such board, 5 refused by the board, 6
// verification failed, 7 done on some of the boards only. Errors go to standard error, with --json to
// standard output as an object.
struct OperatorOptions {
    std::string control; // path of the local socket
    bool json = false;
    bool quiet = false;
};

int ListBoards(const OperatorOptions &options);
int PushFolder(const OperatorOptions &options, const std::string &folder, const std::string &to);

} // namespace server
