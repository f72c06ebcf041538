// SPDX-License-Identifier: MIT
// common/pc/verb_error.h: how a program on the PC ends: one exit status per kind of end, and the exception
// that carries it.
#pragma once

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

namespace ledboard
{

enum class ExitStatus : int {
    kDone = 0,
    kFailed = 1,
    kUsage = 2,
    kNoSuchBoard = 3,
    kTimeout = 4,
    kRefused = 5, // by the board
    kVerification = 6,
    kPartly = 7, // done on some of the boards only
    kInterrupted = 130,
};

// The word for the status in JSON, such as "no-such-board".
const char *StatusWord(ExitStatus status);

// Ends a verb, or its work on one board. The message starts without a capital and ends without a full stop.
class VerbError : public std::runtime_error
{
public:
    VerbError(ExitStatus status, const std::string &message) : std::runtime_error(message), status_(status) {}
    ExitStatus Status() const { return status_; }

private:
    ExitStatus status_;
};

// kFailed; the text of the errno value follows the message.
VerbError SystemError(const std::string &message, int errorNumber);

// {"status": 3, "kind": "no-such-board", "message": "..."}
nlohmann::json ErrorJson(const VerbError &error);

} // namespace ledboard
