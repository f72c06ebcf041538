// SPDX-License-Identifier: MIT
#include "terminal/confirm.h"

#include "common/pc/text.h"
#include "common/pc/verb_error.h"
#include "terminal/interrupt.h"

#include <poll.h>
#include <unistd.h>

namespace ledboard
{

void Confirm(Output &output, bool yes, const std::string &question)
{
    if (yes)
        return;
    if (output.Json() || isatty(STDIN_FILENO) != 1)
        throw VerbError(ExitStatus::kUsage, question + " nobody can be asked here; say --yes to agree");
    output.Draw(ForTerminal(question) + " [y/N] ");
    std::string answer;
    char c = '\n';
    do {
        // Byte by byte, and not with a buffered read, so that Ctrl-C ends the wait.
        WaitFor(STDIN_FILENO, POLLIN, Clock::time_point::max());
        if (read(STDIN_FILENO, &c, 1) != 1)
            break;
        answer += c;
    } while (c != '\n');
    if (answer != "y\n" && answer != "Y\n" && answer != "yes\n")
        throw VerbError(ExitStatus::kFailed, "declined; nothing was done");
}

} // namespace ledboard
