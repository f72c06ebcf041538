// SPDX-License-Identifier: MIT
// src/settings/setting_answer.h: what the handling of one settings packet leaves to be done without the
// service's lock.
#pragma once

#include "base/files.h"
#include "records/wire_types.h"

#include <chrono>
#include <functional>
#include <string>

// Carried out in this order; a send that fails ends it, but for `shutdown`.
struct SettingAnswer {
    std::function<void()> before; // messages to the player, commands that take long
    std::string reply;
    FilePointer file;               // sent behind the reply in blocks
    std::size_t blockSize = 0;      // bytes of one send
    const char *blockLog = nullptr; // printed after each block, with its bytes
    const char *shortLog = nullptr; // printed when a block falls short
    std::string tail;               // sent behind the file
    std::function<void(std::size_t fileBytes)> after;
    bool shutdown = false; // the client's socket, at the end

    template <wire::Record T> void Reply(const T &record)
    {
        reply.append(reinterpret_cast<const char *>(&record), sizeof record);
    }
};

// How long a peer may take. A client of the service's own port must take some bytes again and again, a
// session of the main port must be done altogether in time.
struct SendPatience {
    std::chrono::milliseconds limit;
    bool renewed; // the limit starts again whenever bytes went out
};

// False when something could not be sent whole. The caller does not hold the service's lock: Deliver takes it
// for each block that it copies from the file.
bool Deliver(SettingAnswer *answer, int fd, SendPatience patience);
