// SPDX-License-Identifier: MIT
#include "common/pc/verb_error.h"

#include "common/pc/text.h"

#include <system_error>

namespace ledboard
{

const char *StatusWord(ExitStatus status)
{
    switch (status) {
    case ExitStatus::kDone:
        return "done";
    case ExitStatus::kFailed:
        return "failed";
    case ExitStatus::kUsage:
        return "usage";
    case ExitStatus::kNoSuchBoard:
        return "no-such-board";
    case ExitStatus::kTimeout:
        return "time-out";
    case ExitStatus::kRefused:
        return "refused";
    case ExitStatus::kVerification:
        return "verification-failed";
    case ExitStatus::kPartly:
        return "partly-done";
    case ExitStatus::kInterrupted:
        return "interrupted";
    }
    return "failed";
}

VerbError SystemError(const std::string &message, int errorNumber)
{
    return {ExitStatus::kFailed, message + ": " + std::generic_category().message(errorNumber)};
}

nlohmann::json ErrorJson(const VerbError &error)
{
    return {{"status", static_cast<int>(error.Status())},
            {"kind", StatusWord(error.Status())},
            {"message", ToUtf8(error.what())}};
}

} // namespace ledboard
