// SPDX-License-Identifier: MIT
// src/settings/setting_answer.h: what remains to be done after a packet of the setting service has been
// handled, without the service's lock: messages, long commands, and the answer to the client.
#pragma once

#include "base/files.h"
#include "records/wire_types.h"

#include <chrono>
#include <functional>
#include <string>

// Done in the order of the members. After a send that fails nothing more is sent, but `after` and `shutdown`
// follow.
struct SettingAnswer {
    std::function<void()> before; // messages to the player, commands that take long
    std::string reply;
    FilePointer file;                                 // sent after the reply, in blocks
    std::size_t blockSize = 0;                        // bytes of one block, at most kMaxAnswerBlock
    const char *blockLog = nullptr;                   // printed after each block, with its size
    const char *shortLog = nullptr;                   // printed if a block is not sent whole
    std::string tail;                                 // sent after the file
    std::function<void(std::size_t fileBytes)> after; // gets what was sent of the file
    bool shutdown = false;                            // shuts down the client's socket

    template <wire::Record T> void Reply(const T &record)
    {
        reply.append(reinterpret_cast<const char *>(&record), sizeof record);
    }
};

constexpr std::size_t kMaxAnswerBlock = 256;

// How long a peer may take for an answer.
struct SendPatience {
    std::chrono::milliseconds limit;
    bool renewed; // true: the limit starts again whenever some bytes were sent; false: it is for the whole
                  // answer
};

// Carries an answer out, on the thread that handled the packet. False if something could not be sent whole.
// The caller must not hold the service's lock: Deliver takes it for each block that it reads from the file.
bool Deliver(SettingAnswer *answer, int fd, SendPatience patience);
