// SPDX-License-Identifier: MIT
// src/settings/setting_lock.h: the one lock of the setting service.
//
// It guards the files that clients send, the caches, the working copy of the settings, the serial line and
// the slant lines against the service thread (port 8879), the main thread (sessions, reboot schedule), the
// thread of the player's requests and the one that acts on signals. The public functions of the service take
// it; its parts take it as an argument, which proves that the caller holds it. Not recursive. Nothing is sent
// to a peer while it is held. Order: this lock first, then that of the
// session list.
#pragma once

#include <mutex>

class [[nodiscard]] SettingLock
{
public:
    SettingLock() : lock_(s_mutex) {}

private:
    inline static std::mutex s_mutex;
    std::lock_guard<std::mutex> lock_;
};
