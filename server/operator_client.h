// SPDX-License-Identifier: MIT
// server/operator_client.h: the operator's verbs. They send requests to the running server over its local
// socket.
#pragma once

#include "common/pc/output.h"

#include <string>

namespace server
{

struct OperatorOptions : ledboard::OutputOptions {
    std::string control; // path of the local socket
};

// Print results and errors; the caller exits with the status.
ledboard::ExitStatus ListBoards(const OperatorOptions &options);
ledboard::ExitStatus PushFolder(const OperatorOptions &options, const std::string &folder,
                                const std::string &to);

} // namespace server
